local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

describe("tocomponent and toproduct", function()
  it("build the entity table and the product string", function()
    assert.are.same({
      klass = 3, type = 4, language = 1, platform = -1, region = -1, oem = -1, version = "0.000.00",
      name = "c3t4l1p-1r-1o-1", extract = "c3t4v0.0.0l1p-1r-1o-1", friendly = "kerno_english",
    }, update.tocomponent("c3t4l1"))
    assert.is_nil(update.tocomponent("c3t4l-10"))
    assert.are.equal("c3t4v16.123.0l-1p-1r-1o-1", update.toproduct("c3t4v16.1230"))
    local friendly = {  -- the first matching row wins, so specific languages come before the rest
      c3t4l2 = "kerno_china", c3t4l4 = "kerno_japan", c3t4l7 = "kerno_unknown", c3t4 = "kerno_unknown",
      c3t4l3 = "kerno_unknown", c3t1207992320l1 = "lumo_english", c3t1207992320l2 = "lumo_china",
      c3t1207992320l4 = "lumo_japan", c3t1207992320l0 = "lumo_unknown", c3t2048l1 = "mendal", c22t2213l1 = "tavi",
      c3t5l1 = false, c2t2213l1 = false, c22t4l1 = false, c2t4l1 = false, c3t67108864l1 = false,
    }
    for text, name in pairs(friendly) do assert.are.equal(name or nil, update.tocomponent(text).friendly, text) end
  end)

  it("parse every field: a four-place minor, 32-bit fields, the last of a repeated letter", function()
    local cases = {  -- identifier -> its full form
      {"c3t4", "c3t4v0.0.0l-1p-1r-1o-1"}, {"ct", "c0t0v0.0.0l-1p-1r-1o-1"}, {"c3t4v9.", "c3t4v9.0.0l-1p-1r-1o-1"},
      {"c3t4v1.2.3.4", "c3t4v1.2000.3l-1p-1r-1o-1"}, {"c3t4v16.0025", "c3t4v16.0025.0l-1p-1r-1o-1"},
      {"c3t4v1.12.345", "c3t4v1.1200.345l-1p-1r-1o-1"}, {"c3t4v1.12345", "c3t4v1.1234.0l-1p-1r-1o-1"},
      {"c3t4v18446744073709551617", "c3t4v1.0.0l-1p-1r-1o-1"}, {"c4294967297t4294967299", "c1t3v0.0.0l-1p-1r-1o-1"},
      {"c3t4l", "c3t4v0.0.0l0p-1r-1o-1"}, {"c3t4l-", "c3t4v0.0.0l0p-1r-1o-1"}, {"c3t4l-4294967297", "c3t4v0.0.0l-1p-1r-1o-1"},
      {"c3t4l2147483648", "c3t4v0.0.0l-2147483648p-1r-1o-1"}, {"c3t4l1l2", "c3t4v0.0.0l2p-1r-1o-1"},
      {"c3t4o4r3p2l1", "c3t4v0.0.0l1p2r3o4"},
    }
    for _, case in ipairs(cases) do assert.are.equal(case[2], update.tocomponent(case[1]).extract, case[1]) end
  end)

  it("raise the parser's message as an argument error", function()
    local cases = {
      {nil, "expected product id string"}, {{}, "expected product id string"}, {34, "invalid product class"},
      {"c3x4", "invalid product type"}, {"c3", "invalid product type"}, {"", "invalid product class"},
      {" c3t4", "invalid product class"}, {"C3t4", "invalid product class"}, {"c3t4v1.123456", "minor version too large"},
      {"c3t4l1v2", "invalid field"}, {"c3t4v1.2.3.4.5", "invalid field"}, {"c3t4l-x", "invalid field"},
      {"c3t4L1", "invalid field"}, {"c3t4 ", "invalid field"}, {"c3t4\0l1", "invalid field"},
      {"c3t4l1p2r3o4l5", "too many fields"}, {"c3t4l1l1l1l1l1", "too many fields"},
    }
    local calls = {  -- called by name, not as tail calls, so that the error can name the function
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
  after_each(h.assertReleased)

  local function listing(products)
    fake.script("GetInformation", 1, {products = products})
    local result, status = update.list("repo", {})
    assert.are.equal(1, status)
    return result
  end

  it("list every product followed by its components, friendly names beside", function()
    local t = listing{
      {klass = 1, type = 100, major = 10},
      {klass = 1, type = 101, components = {{klass = 3, type = 4, language = 1}, {klass = 2, type = 7}}},
    }
    assert.are.same({"c1t100v10.0.0l-1p-1r-1o-1", "c1t101v0.0.0l-1p-1r-1o-1", "c3t4l1p-1r-1o-1", "c2t7l-1p-1r-1o-1"},
                    {t[1].name, t[2].name, t[3].name, t[4].name})
    assert.are.same({t[1], t[2], t[3], t[4], kerno_english = t[3]}, t)
    assert.are.equal(t[3], t.kerno_english)
  end)

  it("leave holes for hidden entities and let the later friendly name win", function()
    local t = listing{
      {klass = 3, type = 4, language = 1, components = {
        {klass = 3, type = 4, language = 1, region = -10}, {klass = 3, type = 4, language = 1, major = 2},
        {klass = 3, type = 2048, oem = -10}}},
      {klass = 1, type = 1, platform = -10, components = {{klass = 22, type = 2213}}},
    }
    assert.are.equal("c3t4v0.0.0l1p-1r-1o-1", t[1].name)
    assert.are.same({true, true, true}, {t[2] == nil and t[4] == nil and t[5] == nil, t[3] == t.kerno_english,
                                         t.mendal == nil and t[6] == t.tavi})
    assert.are.same({}, listing{})
    assert.are.same({}, listing{{klass = 1, type = 1, platform = -10}})
  end)

  it("spell each entity in three forms that parse back to it", function()
    math.randomseed(20261123)
    local function pick() return ({math.random(-1, 14), -2^31, 2^31 - 1, math.random(0, 2^32 - 1)})[math.random(4)] end
    local products = {}
    for i = 1, 300 do
      products[i] = {klass = pick() % 2^31, type = pick() % 2^31, language = pick(), platform = pick(), region = pick(),
                     oem = pick(), major = math.random(0, 2^31 - 1), minor = math.random(0, 9999), build = math.random(0, 2^31 - 1)}
    end
    products[1] = {klass = -1, type = -2^31, major = 2^32 - 1, minor = 1, build = 2^31, components = {{klass = 3, type = 4, minor = 100}}}
    local t = listing(products)
    assert.are.same({"c-1t-2147483648v4294967295.0001.2147483648l-1p-1r-1o-1", "c-1t-2147483648v-1.0001.-2147483648l-1p-1r-1o-1",
                     "c3t4l-1p-1r-1o-1", "c3t4v0.0100.0l-1p-1r-1o-1", "c3t4v0.01.0l-1p-1r-1o-1"},
                    {t[1].name, t[1].extract, t[2].name, t[2].extract, update.toproduct(t[2].extract)})
    for i = 3, #t do
      local e = t[i]
      if e then
        local back = update.tocomponent(e.extract)
        assert.are.same({e.klass, e.type, e.language, e.platform, e.region, e.oem, e.extract, e.name},
                        {back.klass, back.type, back.language, back.platform, back.region, back.oem, back.extract,
                         update.toproduct(e.extract)}, e.extract)
      end
    end
  end)

  it("show each version in its class's notation", function()
    local cases = {  -- klass, type, major, minor, build -> version
      {3, 4, 1234567, 0, 0, "12.345.67"}, {3, 4, 905, 0, 0, "0.009.05"}, {3, 4, 1234567, 0, 1, "1234567.0.1"},
      {3, 1073741840, 1234, 0, 0, "12.34"}, {3, 67108864, 7, 0, 0, "0.007"}, {3, 2048, 1234567, 0, 0, "1234567"},
      {3, 0x48000100, 905, 0, 0, "0.00905"}, {3, 0x48040181, 1234567, 0, 0, "0.12345.67"},
      {3, 0x4000001, 1234567, 0, 0, "1234.567"}, {3, 0x40000010, 905, 0, 0, "9.05"},
      {3, -1, 2147483648, 0, 0, "-2147483648"}, {3, 5, 2^32 + 5, 0, 0, "5"}, {3, 4, 1234567, 0, 2^32, "1234567.0.0"},
      {2, 1207960066, 9, 750, 1001, "9.750.1001"}, {2, 1207960066, 10, 0, 0, "10.000"},
      {2, 1207960067, 9, 9, 0, "9.900"}, {2, 1207960101, 9, 99, 0, "9.990"}, {2, 1207960104, 9, 999, 0, "9.999"},
      {2, 1207960068, 9, 750, 1001, "9.075.1001"}, {2, 1207960100, 9, 5, 0, "9.0005"},
      -- scan engines (right-filled minors) are 0x48000202 plus 0, 1 or 35 to 38, of class 2 only
      {2, 1207960102, 9, 5, 0, "9.500"}, {2, 1207960103, 9, 5, 0, "9.500"}, {2, 1207960065, 9, 5, 0, "9.0005"},
      {2, 1207960105, 9, 5, 0, "9.0005"}, {2, 1207960130, 9, 5, 0, "9.0005"}, {2, -1, 9, 5, 0, "9.0005"},
      {3, 1207960066, 9, 5, 0, "9.0005"},
      {22, 2213, 1, 1200, 0, "1.120"}, {22, 2212, 1, 1200, 0, "1.12"}, {2, 2213, 1, 1200, 0, "1.12"},
      {1, 5, 9, 7500, 1234, "9.75.1234"}, {1, 5, 9, 9, 0, "9.0009"}, {1, 5, 0, 5000, 0, "0.5"},
      {1, 5, 2^32 + 7, 1, 2^32, "7.0001.0"}, {1, 5, 5, 12345, 7, "5.12345.7"}, {1, 5, 1, 2^32 + 50, 0, "1.5"},
      -- minors filled to four places, then trimmed of up to three zeros (engines: one, filled right)
      {3, 4, 9, 10, 0, "9.001"}, {3, 4, 9, 99, 0, "9.0099"}, {3, 4, 9, 100, 0, "9.01"}, {3, 4, 9, 999, 0, "9.0999"},
      {3, 4, 9, 1000, 0, "9.1"}, {3, 4, 9, 10000, 0, "9.10"}, {3, 4, 9, 120000, 0, "9.120"}, {3, 4, 9, 2^32, 1, "9.0.1"},
      {3, 4, 9, 4294967295, 0, "9.4294967295"}, {2, 1207960066, 9, 10, 0, "9.100"}, {2, 1207960066, 9, 40, 0, "9.400"},
      {2, 1207960066, 9, 1234, 0, "9.1234"}, {2, 1207960066, 9, 2^32 + 5, 0, "9.5"}, {22, 2213, 1, 100, 0, "1.010"},
    }
    local products = {}
    for i, c in ipairs(cases) do products[i] = {klass = c[1], type = c[2], major = c[3], minor = c[4], build = c[5]} end
    local t = listing(products)
    for i, c in ipairs(cases) do assert.are.equal(c[6], t[i].version, "case " .. i) end
  end)

  it("free the record when building the table raises", function()
    local format = string.format
    string.format = nil
    fake.script("GetInformation", 1, {products = {{klass = 1, type = 1}}})
    local ok = pcall(update.list, "repo", {})
    string.format = format
    assert.is_false(ok)
  end)
end)
