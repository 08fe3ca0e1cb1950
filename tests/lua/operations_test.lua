-- The repository operations through the fake relay, and the semaphore file each removes after
-- its context.
local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

local function raising(what) return setmetatable({}, {[what] = function() error("from " .. what) end}) end
local function message(ok, text) return not ok and (text:gsub("^.-:%d+: ", "")) end

describe("operations", function()
  before_each(function()
    fake.reset()
    h.makeSemaphore()
  end)
  after_each(h.assertReleased)

  it("release what they hold before raising a bad argument", function()
    local cases = {  -- arguments -> error, relay calls
      {{nil, "c1t1"}, "bad argument #1 to '?' (expected repository path)", {}},
      {{"repo"}, "expected products"}, {{"repo", "c1t1", true}, "expected sources"},
      {{"repo", "c1t1", "src", "opts"}, "not a table of options"},
      {{"repo", "c1t1", raising("__len")}, "from __len"}, {{"repo", "c1t1", {raising("__index")}}, "from __index"},
    }
    for _, f in ipairs{update.list, update.everything, update.patterns, update.components} do
      for i, case in ipairs(cases) do
        h.makeSemaphore()
        fake.reset()
        assert.are.equal(case[2], message(pcall(f, table.unpack(case[1], 1, 4))), "case " .. i)
        assert.are.same(case[3] or {"CreateContext", "DestroyContext"}, h.calls(), "case " .. i)
        assert.are.equal(i > 1, not h.exists(h.SEMAPHORE), "case " .. i)
        h.assertReleased()
      end
    end
  end)

  it("return the refusal of the context, or the status triple of the relay operation", function()
    fake.script("CreateContext", -9)
    assert.are.same({nil, -9, "status -9"}, {update.list("repo", nil, true, "bad options")})
    assert.is_false(h.exists(h.SEMAPHORE))
    local cases = {{1, {products = {{klass = 1, type = 2}}}, "table"}, {3, nil, "nil"}, {0, {products = {}}, "nil"}, {-6, nil, "nil"}}
    for _, f in ipairs{"list", "everything"} do
      for _, case in ipairs(cases) do
        fake.reset()
        h.makeSemaphore()
        fake.script(f == "list" and "GetInformation" or "Duplicate", case[1], case[2])
        local a, status, text = update[f]("repo", {}, nil, {ke = true})
        assert.are.same({case[3], case[1], "status " .. case[1]}, {type(a), status, text})
        assert.is_false(h.exists(h.SEMAPHORE))
      end
    end
  end)

  it("keep errors of the clean-up from the script", function()
    local options = setmetatable({}, {__index = function(_, key) error("no " .. key) end})
    options.removeke = print
    options.progress = function() options.removeke = nil end  -- the clean-up's lookup now raises
    fake.event(1)
    assert.are.same({nil, 1, "status 1"}, {update.everything("repo", {}, nil, options)})
  end)
end)

describe("selective mirroring", function()
  before_each(fake.reset)
  after_each(h.assertReleased)

  local listing = {products = {
    {klass = 1, type = 100, language = 9, major = 2^40, revision = 3, components = {
      {klass = 3, type = 4, language = 1, platform = 5, region = 6, oem = 7, major = 7, minor = 8, build = 9, revision = 10},
      {klass = 2, type = 1207960066}, {klass = 22, type = 2213}, {klass = 22, type = 2212}, {klass = 3, type = 2048}}},
    {klass = 1, type = 101, components = {{klass = 2, type = 7}}},
    {klass = 1, type = 102, components = {{klass = 3, type = 4, language = 2}}},
  }}

  -- The products and components (as "klass/type") that reached Duplicate.
  local function mirrored()
    local call = h.calls("Duplicate")[1]
    if call == nil then return nil end
    local got = {}
    for _, p in ipairs(call.products or {}) do
      local parts = {p.klass .. "/" .. p.type .. ":"}
      for _, c in ipairs(p.components or {}) do parts[#parts + 1] = c.klass .. "/" .. c.type end
      got[#got + 1] = table.concat(parts, " ")
    end
    return got
  end

  it("keep what each filter accepts, under its product, byte for byte", function()
    local cases = {
      {update.patterns, nil, {"1/100: 3/4 22/2213 3/2048", "1/102: 3/4"}},
      {update.patternsExceptKerno, nil, {"1/100: 22/2213 3/2048"}},
      {update.components, {"c2t1207960066v9.9l7", "c3t2048o3"}, {"1/100: 2/1207960066 3/2048"}},
      {update.components, "c2t7", {"1/101: 2/7"}}, {update.components, nil, {}}, {update.components, {}, {}},
    }
    for i, case in ipairs(cases) do
      for _, requested in ipairs{{}, {"c1t100", "c1t101", "c1t102", "c1t103"}} do
        fake.reset()
        fake.script("GetInformation", 1, listing)
        case[1]("repo", requested, nil, {ke = true}, case[2])
        assert.are.same(case[3], mirrored(), "case " .. i)
      end
    end
    fake.reset()
    fake.script("GetInformation", 1, listing)
    update.patterns("repo", "c1t100", nil, {ke = true})
    local product = h.calls("Duplicate")[1].products[1]
    assert.are.same({1, 100, 9, 2^40, 3}, {product.klass, product.type, product.language, product.major, product.revision})
    assert.are.same(listing.products[1].components[1], product.components[1])
  end)

  it("stop at a failed listing or an impossible buffer, and destroy only records received", function()
    fake.script("GetInformation", -5)
    assert.are.same({nil, -5, "status -5"}, {update.patterns("repo", {}, nil, {ke = true})})
    fake.reset()
    fake.script("GetInformation", 1)  -- success without a record: nothing to destroy
    update.patterns("repo", {}, nil, {ke = true})
    assert.are.same({}, h.calls("DestroyData"))
    fake.reset()
    fake.script("GetInformation", 1, {products = {{klass = 1, type = 1, componentCount = "18446744073709551615"}}})
    fake.message(-4, "out of memory")
    assert.are.same({nil, -4, "out of memory"}, {update.patterns("repo", {}, nil, {ke = true})})
    assert.is_nil(mirrored())
    fake.reset()
    fake.script("GetInformation", 1, {products = {{klass = 1, type = 1, componentCount = 2^60}}})
    assert.are.same({nil, -4, "status -4"}, {update.components("repo", {}, nil, nil, "c1t1")})
  end)
end)

describe("extract", function()
  before_each(fake.reset)
  after_each(h.assertReleased)

  it("exports the component named by a string or an entity table", function()
    for _, component in ipairs{"c3t4v16.1230.7l1", update.tocomponent("c3t4v16.1230.7l1")} do
      fake.reset()
      fake.script("ExportComponent", 2)
      assert.are.same({true, 2, "status 2"}, {update.extract("repo", component, "/out/dir")})
      local call = h.calls("ExportComponent")[1]
      assert.are.equal("/out/dir", h.narrow(call.destination))
      local e = call.entity
      assert.are.same({3, 4, 1, -1, 16, 1230, 7, 0}, {e.klass, e.type, e.language, e.oem, e.major, e.minor, e.build, e.revision})
      assert.are.same({"CreateContext", "ExportComponent", "DestroyContext"}, h.calls())
    end
    fake.script("ExportComponent", -6)
    assert.are.same({nil, -6, "status -6"}, {update.extract("repo", "c3t4", 42)})
  end)

  it("checks its arguments from the last to the first, before any context", function()
    h.makeSemaphore()
    local cases = {
      {{nil, nil, {}}, "#3 to 'extract' (expected destination directory)"}, {{nil, {}, "d"}, "#2 to 'extract' (expected product id string)"},
      {{nil, {extract = "x"}, "d"}, "#2 to 'extract' (invalid product class)"},
      {{nil, "c3t4", "d"}, "#1 to 'extract' (expected repository path)"},
    }
    for _, case in ipairs(cases) do
      local call = function() local r = update.extract(table.unpack(case[1], 1, 3)); return r end
      assert.are.equal("bad argument " .. case[2], message(pcall(call)))
      assert.are.same({}, h.calls())
      assert.is_true(h.exists(h.SEMAPHORE))  -- left alone
    end
  end)
end)
