local fake = require "fakerelay"
fake.reset()
local update = require "update"
local h = require "helpers"

describe("the module", function()
  it("starts the relay once per process, with a null argument, and registers the thirteen functions", function()
    assert.are.same({true}, {h.calls("Startup")[1].reserved_null, h.calls("Startup")[2]})
    package.loaded.update = nil
    assert.are_not.equal(update, require "update")
    assert.are.equal(1, #h.calls("Startup"))
    local names = {}
    for name, value in pairs(update) do names[#names + 1] = type(value) == "function" and name end
    table.sort(names)
    assert.are.same({"components", "everything", "extract", "list", "ok", "patterns", "patternsExceptKerno",
                     "removeke", "shutdown", "startup", "tocomponent", "toproduct", "version"}, names)
  end)

  it("returns true or nil, the status and the relay's message narrowed byte for byte", function()
    local cases = {  -- status, message code points -> first result, message
      {1, {109}, true, "m"}, {7, {}, true, ""}, {0, {233}, nil, "?"}, {-3, {0xFFFFFFE9}, nil, "\233"},
      {-2147483648, {65, 127, 128, 0xFFFFFF80, 0x100}, nil, "A\127?\128?"}, {-5, {65, 0x80000000, 66}, nil, "A\0B"},
      {-6, string.rep("x", 62) .. "y", nil, string.rep("x", 62) .. "y"},
    }
    for i, case in ipairs(cases) do
      fake.reset()
      fake.message(case[1], case[2])
      for _, f in ipairs{"startup", "shutdown"} do
        fake.script(f:gsub("^s", "S"), case[1])
        assert.are.same({case[3], case[1], case[4]}, {update[f]()}, "case " .. i)
      end
      assert.are.equal(1, #h.calls("Startup"))  -- startup() calls the relay every time
    end
    update.startup()
  end)

  it("reports the relay's version: four 64-bit fields and major.minor.build, or nil", function()
    fake.reset()
    fake.version({major = 2^40 + 2^31, minor = 5, build = 2^32 + 7, revision = 9})
    assert.are.same({{major = 2^40 + 2^31, minor = 5, build = 2^32 + 7, revision = 9, string = "-2147483648.5.7"},
                     1, "status 1"}, {update.version()})
    fake.version(nil, -2)
    assert.are.same({nil, -2, "status -2"}, {update.version()})
  end)

  it("ok() judges the low 32 bits of a number, with one result", function()
    local cases = {
      {1, true}, {0, false}, {-3, false}, {"5", true}, {" 5 ", true}, {"0x10", true}, {4294967297, true},
      {4294967296, false}, {2^31, false}, {-4294967295, true}, {1.9, true}, {0.5, false}, {"abc", false},
      {{}, false}, {true, false}, {print, false}, {nil, false},
    }
    for _, case in ipairs(cases) do assert.are.equal(case[2], update.ok(case[1]), tostring(case[1])) end
    assert.are.equal(1, select("#", update.ok(1, 2, 3)))
  end)
end)
