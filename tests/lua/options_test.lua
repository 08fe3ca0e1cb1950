local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

-- What the relay was told for an options table: {number, value} or {"event", type}, sorted.
local function applied(options)
  fake.reset()
  update.list("repo", {}, nil, options)
  h.assertReleased()
  local settings = {}
  for _, call in ipairs(fake.calls()) do
    if call.option then settings[#settings + 1] = {call.option, call.value} end
    if call.event then settings[#settings + 1] = {"event", call.event, call.callback} end
  end
  table.sort(settings, function(a, b) return tostring(a[1]) < tostring(b[1]) end)
  return settings
end

describe("options", function()
  it("reach the relay with their numbers and values", function()
    local cases = {
      {{maxbandwidth = 100}, {{0, 100}}}, {{maxbandwidth = "100"}, {{0, 100}}}, {{keepcount = -1}, {{12, -1}}},
      {{maxmerge = 2^40}, {{10, 2^40}}}, {{diffcount = 3, httpslevel = 0}, {{11, 3}, {15, 0}}},
      {{buildpatch = true}, {{9, 1}}}, {{enable_check_file_type_blacklist = false}, {{23, 0}}},
      {{file_type_blacklist = 5}, {{22, {53}}}}, {{file_type_blacklist = ".cab,EXE"}, {{22, {46, 99, 97, 98, 44, 69, 88, 69}}}},
      {{progress = print, download = print}, {{"event", 0, true}, {"event", 1, true}}},
      {{removebegin = print, removefailed = print, downloadbegin = print, downloadend = print},
       {{"event", 2, true}, {"event", 3, true}, {"event", 4, true}, {"event", 5, true}}},
      {{unknown = print, ke = false}, {}}, {nil, {}},
    }
    for i, case in ipairs(cases) do
      local settings = applied(case[1])
      if settings[1] and settings[1][1] == "event" then table.sort(settings, function(a, b) return a[2] < b[2] end) end
      assert.are.same(case[2], settings, "case " .. i)
    end
  end)

  it("decode strings in the current locale", function()
    assert.are.same({{22, {}}}, applied{file_type_blacklist = "\195\169"})
    if os.setlocale("C.UTF-8", "ctype") then
      local ok, settings = pcall(applied, {file_type_blacklist = "\195\169"})
      os.setlocale("C", "ctype")
      assert.are.same({true, {{22, {233}}}}, {ok, settings})
    end
  end)

  it("reject entries with their exact messages, releasing the context first", function()
    local cases = {
      {"s", "not a table of options"}, {{maxbandwidth = "fast"}, "maxbandwidth must be a integer"},
      {{buildpatch = 1}, "buildpatch must be a boolean"}, {{file_type_blacklist = {}}, "file_type_blacklist must be a string"},
      {{progress = 5}, "progress must be a function"}, {{[1] = true}, "1 is not a valid option"},
      {{[1.5] = true}, "1.5 is not a valid option"}, {{[true] = 1}, "options must be named"},
      {{Maxbandwidth = 1}, "Maxbandwidth is not a valid option"}, {{ke = "yes"}, "ke must be boolean"},
      {{removeke = true}, "removeke must be a function"}, {{unknown = 1}, "unknown must be a function"},
    }
    for _, case in ipairs(cases) do
      h.makeSemaphore()
      fake.reset()
      assert.are.same({false, case[2]}, {pcall(update.everything, "repo", "c1t1", "src", case[1])})
      assert.are.same({"CreateContext", "DestroyContext"}, h.calls())
      assert.is_false(h.exists(h.SEMAPHORE))  -- removed after the context
      h.assertReleased()
    end
  end)
end)

describe("the clean-up after a mirror", function()
  local repo
  before_each(function()
    repo = h.tempdir()
    h.write(repo .. "/server.ini", "old")
    fake.reset()
  end)
  after_each(function() h.rmtree(repo) end)

  it("is skipped when ke is true, whichever of ke and removeke the options meet first", function()
    -- Traversal order follows each run's hash seed: tables of random shapes and insertion orders
    -- are tried, and one of each order met is run.
    local extras = {buildpatch = true, maxmerge = 1, keepcount = 1, diffcount = 1, httpslevel = 0, maxbandwidth = 0,
                    download = print, progress = print, removebegin = print, downloadbegin = print, unknown = print}
    local met = {}
    for attempt = 1, 500 do
      local options = attempt % 2 == 0 and {ke = true, removeke = print} or {removeke = print, ke = true}
      for key, value in pairs(extras) do if math.random(2) == 1 then options[key] = value end end
      local first
      for key in pairs(options) do first = first or (key == "ke" or key == "removeke") and key end
      if not met[first] then
        met[first] = true
        update.everything(repo, "c1t1", "src", options)
        assert.are.equal("old", h.read(repo .. "/server.ini"))
      end
    end
  end)

  it("never changes the results, even when it raises", function()
    fake.script("Duplicate", 4, {products = {{klass = 1, type = 1}}})
    local globals = package.loaded._G  -- the host's globals, not this file's environment
    local savedIo = globals.io
    globals.io = nil  -- removeke itself raises
    local a, status, message = update.everything(repo, "c1t1", "src")
    globals.io = savedIo
    assert.are.same({"table", 4, "status 4", "old"}, {type(a), status, message, h.read(repo .. "/server.ini")})
    h.assertReleased()
  end)
end)
