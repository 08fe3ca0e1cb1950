local fake = require "fakerelay"
local probe = require "updateprobe"
local update = require "update"

describe("tocomponent and toproduct", function()
  it("build the entity table", function()
    assert.are.same({
      klass = 3, type = 4, language = 1, platform = -1, region = -1, oem = -1,
      version = "0.000.00", name = "c3t4l1p-1r-1o-1", extract = "c3t4v0.0.0l1p-1r-1o-1",
      friendly = "kerno_english",
    }, update.tocomponent("c3t4l1"))
    assert.is_nil(update.tocomponent("c3t4l-10"))
    assert.are.equal("c3t4v16.123.0l-1p-1r-1o-1", update.toproduct("c3t4v16.1230"))
  end)

  it("raise the parser's message as an argument error", function()
    local cases = {
      {nil, "expected product id string"}, {true, "expected product id string"},
      {{}, "expected product id string"}, {34, "invalid product class"}, {"c3x4", "invalid product type"},
      {"c3t4v1.123456", "minor version too large"}, {"c3t4l1v2", "invalid field"},
      {"c3t4l1p2r3o4l5", "too many fields"},
    }
    -- Called by name, not as a tail call, so that the error can name the function.
    local calls = {
      tocomponent = function(v) local r = update.tocomponent(v); return r end,
      toproduct = function(v) local r = update.toproduct(v); return r end,
    }
    for _, case in ipairs(cases) do
      for name, call in pairs(calls) do
        local ok, message = pcall(call, case[1])
        assert.is_false(ok)
        assert.are.equal("bad argument #1 to '" .. name .. "' (" .. case[2] .. ")", message:gsub("^.-:%d+: ", ""), 1)
      end
    end
  end)
end)

describe("result tables", function()
  before_each(fake.reset)
  after_each(function()
    assert.are.same({contexts = 0, records = 0}, fake.counts())
  end)

  local function listing(products)
    fake.script("GetInformation", 1, {products = products})
    local result, status = probe.information()
    assert.are.equal(1, status)
    return result
  end

  it("list every product followed by its components", function()
    local t = listing{
      {klass = 1, type = 100, major = 10},
      {klass = 1, type = 101, components = {{klass = 3, type = 4, language = 1}, {klass = 2, type = 7}}},
    }
    assert.are.equal("c1t100v10.0.0l-1p-1r-1o-1", t[1].name)
    assert.are.equal("c1t101v0.0.0l-1p-1r-1o-1", t[2].name)
    assert.are.equal("c3t4l1p-1r-1o-1", t[3].name)
    assert.are.equal("c2t7l-1p-1r-1o-1", t[4].name)
    assert.are.equal(t[3], t.kerno_english)
    local count = 0
    for _ in pairs(t) do count = count + 1 end
    assert.are.equal(5, count)
  end)

  it("leave holes for hidden entities and let the later friendly name win", function()
    local t = listing{
      {klass = 3, type = 4, language = 1, components = {
        {klass = 3, type = 4, language = 1, region = -10},
        {klass = 3, type = 4, language = 1, major = 2},
        {klass = 3, type = 2048, oem = -10},
      }},
      {klass = 1, type = 1, platform = -10, components = {{klass = 22, type = 2213}}},
    }
    assert.are.equal("c3t4v0.0.0l1p-1r-1o-1", t[1].name)
    assert.is_nil(t[2])
    assert.are.equal(t[3], t.kerno_english)
    assert.is_nil(t[4])
    assert.is_nil(t.mendal)
    assert.is_nil(t[5])
    assert.are.equal(t[6], t.tavi)
  end)

  it("are empty for an empty record and nil without one", function()
    assert.are.same({}, listing{})
    assert.are.same({}, listing{{klass = 1, type = 1, platform = -10}})
    fake.script("GetInformation", 5)
    local result, status = probe.information()
    assert.is_nil(result)
    assert.are.equal(5, status)
  end)

  it("free the record when building the table raises", function()
    local format = string.format
    string.format = nil
    fake.script("GetInformation", 1, {products = {{klass = 1, type = 1}}})
    local ok = pcall(probe.information)
    string.format = format
    assert.is_false(ok)
  end)
end)
