local fake = require "fakerelay"
fake.reset()
local update = require "update"

local function codepoints(text)
  local t = {}
  for i = 1, #text do t[i] = text:byte(i) end
  return t
end

local function callsNamed(name)
  local found = {}
  for _, call in ipairs(fake.calls()) do
    if call.name == name then found[#found + 1] = call end
  end
  return found
end

describe("loading", function()
  it("starts the relay once per process, with a null argument", function()
    local starts = callsNamed("Startup")
    assert.are.equal(1, #starts)
    assert.is_true(starts[1].reserved_null)
    package.loaded.update = nil
    local again = require "update"
    assert.are_not.equal(update, again)
    assert.are.equal(1, #callsNamed("Startup"))
  end)

  it("registers the thirteen functions, and nothing else", function()
    local names = {}
    for name, value in pairs(update) do
      assert.are.equal("function", type(value))
      names[#names + 1] = name
    end
    table.sort(names)
    assert.are.same({"components", "everything", "extract", "list", "ok", "patterns", "patternsExceptKerno",
                     "removeke", "shutdown", "startup", "tocomponent", "toproduct", "version"}, names)
  end)
end)

describe("status triple", function()
  before_each(fake.reset)

  it("is true or nil, the status, and the relay's message", function()
    for _, case in ipairs{{1, true}, {7, true}, {0, nil}, {-3, nil}, {-2147483648, nil}} do
      local status, expected = case[1], case[2]
      fake.message(status, "message " .. status)
      fake.script("Startup", status)
      fake.script("Shutdown", status)
      for _, f in ipairs{update.startup, update.shutdown} do
        local a, s, m = f()
        assert.are.equal(expected, a)
        assert.are.equal(status, s)
        assert.are.equal("message " .. status, m)
      end
    end
    update.startup()
  end)

  it("startup() calls the relay again every time", function()
    update.startup()
    update.startup()
    assert.are.equal(2, #callsNamed("Startup"))
  end)

  it("narrows wide messages byte for byte", function()
    local cases = {
      {{233}, "?"},                                  -- a true code point of 128 or more
      {{0xFFFFFFE9}, "\233"},                        -- a sign-extended byte comes back as the byte
      {{65, 127, 128, 0xFFFFFF80, 0x100}, "A\127?\128?"},
      {{65, 0x80000000, 66}, "A\0B"},               -- negative values give their low 8 bits
      {codepoints(string.rep("x", 62) .. "y"), string.rep("x", 62) .. "y"},
      {{}, ""},
    }
    for i, case in ipairs(cases) do
      fake.message(-100 - i, case[1])
      fake.script("Shutdown", -100 - i)
      local a, s, m = update.shutdown()
      assert.is_nil(a)
      assert.are.equal(-100 - i, s)
      assert.are.equal(case[2], m)
    end
    update.startup()
  end)
end)

describe("version()", function()
  before_each(fake.reset)

  it("returns the four 64-bit fields and major.minor.build", function()
    fake.version({major = 2^40 + 2^31, minor = 5, build = 2^32 + 7, revision = 9})
    local v, status, message = update.version()
    assert.are.same({major = 2^40 + 2^31, minor = 5, build = 2^32 + 7, revision = 9,
                     string = "-2147483648.5.7"}, v)
    assert.are.equal(1, status)
    assert.are.equal("status 1", message)
  end)

  it("returns nil when the relay refuses", function()
    fake.version({major = 1, minor = 2, build = 3, revision = 4}, -2)
    local v, status = update.version()
    assert.is_nil(v)
    assert.are.equal(-2, status)
  end)
end)

describe("ok()", function()
  it("judges the low 32 bits of a number", function()
    local cases = {
      {1, true}, {0, false}, {-3, false}, {"5", true}, {" 5 ", true}, {"0x10", true},
      {4294967297, true}, {4294967296, false}, {2^31, false}, {-4294967295, true}, {1.9, true},
      {0.5, false}, {"abc", false}, {{}, false}, {true, false}, {print, false},
    }
    for _, case in ipairs(cases) do
      assert.are.equal(case[2], update.ok(case[1]), tostring(case[1]))
    end
    assert.is_false(update.ok())
    assert.are.equal(1, select("#", update.ok(1, 2, 3)))
  end)
end)
