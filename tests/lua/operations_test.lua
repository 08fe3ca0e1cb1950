-- The repository operations through the fake relay. Tests that touch /dev/shm/sem.zovrelay create
-- it first and check that it was removed or kept.
local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

local function raising(what)
  return setmetatable({}, {[what] = function() error("from " .. what) end})
end

describe("operations", function()
  before_each(function()
    fake.reset()
    h.makeSemaphore()
  end)
  after_each(h.assertReleased)

  it("release what they hold before raising a bad argument", function()
    local cases = {  -- arguments -> error, relay calls
      {{nil, "c1t1"}, "bad argument #1 to '?' (expected repository path)", {}},
      {{"repo"}, "expected products", {"CreateContext", "DestroyContext"}},
      {{"repo", "c1t1", true}, "expected sources", {"CreateContext", "DestroyContext"}},
      {{"repo", "c1t1", "src", "opts"}, "not a table of options", {"CreateContext", "DestroyContext"}},
      {{"repo", "c1t1", raising("__len")}, "from __len", {"CreateContext", "DestroyContext"}},
      {{"repo", "c1t1", {raising("__index")}}, "from __index", {"CreateContext", "DestroyContext"}},
    }
    for _, f in ipairs{update.list, update.everything, update.patterns, update.components} do
      for i, case in ipairs(cases) do
        h.makeSemaphore()
        fake.reset()
        local ok, message = pcall(f, table.unpack(case[1], 1, 4))
        assert.is_false(ok)
        assert.are.equal(case[2], message:gsub("^.-:%d+: ", ""), "case " .. i)
        assert.are.same(case[3], h.calls(), "case " .. i)
        assert.are.equal(i > 1, not h.exists(h.SEMAPHORE), "case " .. i)  -- sem.zovrelay
        h.assertReleased()
      end
    end
  end)

  it("return the refusal of the context without looking at the other arguments", function()
    fake.script("CreateContext", -9)
    local a, status, message = update.list("repo", nil, true, "bad options")
    assert.are.same({nil, -9, "status -9"}, {a, status, message})
    assert.is_false(h.exists(h.SEMAPHORE))
  end)

  it("return the status triple of the relay operation", function()
    local cases = {  -- scripted status, record -> first result
      {1, {products = {{klass = 1, type = 2}}}, "table"},
      {3, nil, "nil"},
      {0, {products = {}}, "nil"},
      {-6, nil, "nil"},
    }
    for _, f in ipairs{update.list, update.everything} do
      for _, case in ipairs(cases) do
        fake.reset()
        local name = f == update.list and "GetInformation" or "Duplicate"
        fake.script(name, case[1], case[2])
        local a, status, message = f("repo", {}, nil, {ke = true})
        assert.are.same({case[3], case[1], "status " .. case[1]}, {type(a), status, message})
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
    {klass = 1, type = 100, components = {
      {klass = 3, type = 4, language = 1}, {klass = 2, type = 1207960066}, {klass = 22, type = 2213},
      {klass = 22, type = 2212}, {klass = 3, type = 2048, major = 5}}},
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

  it("keep what each filter accepts, under its product", function()
    local cases = {
      {update.patterns, nil, {"1/100: 3/4 22/2213 3/2048", "1/102: 3/4"}},
      {update.patternsExceptKerno, nil, {"1/100: 22/2213 3/2048"}},
      {update.components, {"c2t1207960066v9.9l7", "c3t2048o3"}, {"1/100: 2/1207960066 3/2048"}},
      {update.components, "c2t7", {"1/101: 2/7"}},
      {update.components, nil, {}},
      {update.components, {}, {}},
    }
    for i, case in ipairs(cases) do
      for _, requested in ipairs{{}, {"c1t100", "c1t101", "c1t102", "c1t103"}} do
        fake.reset()
        fake.script("GetInformation", 1, listing)
        case[1]("repo", requested, nil, {ke = true}, case[2])
        assert.are.same(case[3], mirrored(), "case " .. i)
      end
    end
  end)

  it("pass the kept records byte for byte, with the product's whole entity", function()
    fake.script("GetInformation", 1, {products = {
      {klass = 1, type = 100, language = 9, major = 2^40, revision = 3, components = {
        {klass = 3, type = 4, platform = 5, major = 7, minor = 8, build = 9, revision = 10}}}}})
    update.patterns("repo", "c1t100", nil, {ke = true})
    local product = h.calls("Duplicate")[1].products[1]
    local information = h.calls("GetInformation")[1]
    assert.are.same({1, 100, 9, 2^40, 3}, {product.klass, product.type, product.language, product.major, product.revision})
    assert.are.same({3, 4, 5, 7, 8, 9, 10}, {product.components[1].klass, product.components[1].type,
      product.components[1].platform, product.components[1].major, product.components[1].minor,
      product.components[1].build, product.components[1].revision})
    assert.are.equal(1, information.product_count)
  end)

  it("stop at a failed listing or an impossible buffer", function()
    fake.script("GetInformation", -5)
    assert.are.same({nil, -5, "status -5"}, {update.patterns("repo", {}, nil, {ke = true})})
    assert.is_nil(mirrored())
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

  it("check names after options, and release before raising", function()
    h.makeSemaphore()
    for _, case in ipairs{{true, "expected products"}, {{"c3t4", "c3tx"}, "invalid field"}} do
      fake.reset()
      local ok, message = pcall(update.components, "repo", "c1t1", nil, {ke = true}, case[1])
      assert.is_false(ok)
      assert.are.equal(case[2], message)
      assert.is_nil(h.calls("GetInformation")[1])
      assert.is_false(h.exists(h.SEMAPHORE))  -- sem.zovrelay removed after the context
    end
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
      {{}, "bad argument #3 to 'extract' (expected destination directory)"},
      {{nil, nil, {}}, "bad argument #3 to 'extract' (expected destination directory)"},
      {{nil, {}, "d"}, "bad argument #2 to 'extract' (expected product id string)"},
      {{nil, {extract = "x"}, "d"}, "bad argument #2 to 'extract' (invalid product class)"},
      {{nil, "c3t4", "d"}, "bad argument #1 to 'extract' (expected repository path)"},
    }
    for _, case in ipairs(cases) do
      local ok, message = pcall(function() local r = update.extract(table.unpack(case[1], 1, 3)); return r end)
      assert.is_false(ok)
      assert.are.equal(case[2], message:gsub("^.-:%d+: ", ""))
      assert.are.same({}, h.calls())
      assert.is_true(h.exists(h.SEMAPHORE))  -- sem.zovrelay left alone
    end
    os.remove(h.SEMAPHORE)
  end)
end)
