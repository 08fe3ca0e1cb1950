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
    os.execute("mkdir -p '" .. repo .. "/packages'")
  end)
  after_each(function() h.rmtree(repo) end)

  -- Whether removeke ran, whether the archive is kept and how often the predicate was asked.
  local function cleanupOf(call, options)
    h.write(repo .. "/server.ini", "old")
    h.write(repo .. "/packages/c3t4_16.zip", "")
    local offered = 0
    if options and options.removeke then options.removeke = function() offered = offered + 1; return true end end
    fake.reset()
    fake.script("Duplicate", -7)
    call(repo, "c1t1", "src", options)
    return {h.read(repo .. "/server.ini") ~= "old", h.exists(repo .. "/packages/c3t4_16.zip"), offered}
  end

  it("follows ke and removeke, whatever the status and the order", function()
    local f = print
    local cases = {  -- options -> {ran, archive kept, predicate calls}
      {nil, {true, false, 0}}, {{ke = false}, {true, false, 0}}, {{ke = true}, {false, true, 0}},
      {{removeke = f}, {true, true, 1}}, {{removeke = f, ke = false}, {true, true, 1}},
      {{removeke = f, ke = true}, {false, true, 0}}, {{ke = true, removeke = f}, {false, true, 0}},
    }
    for i, case in ipairs(cases) do assert.are.same(case[2], cleanupOf(update.everything, case[1]), "case " .. i) end
    assert.are.same({false, true, 0}, cleanupOf(update.list, {removeke = f}))
    assert.are.same({false, true, 0}, cleanupOf(function(...) return update.components(...) end, nil))
  end)

  it("never changes the results, even when it raises", function()
    fake.reset()
    fake.script("Duplicate", 4, {products = {{klass = 1, type = 1}}})
    local savedIo = io
    io = nil  -- removeke itself raises
    local a, status, message = update.everything(repo, "c1t1", "src")
    io = savedIo
    assert.are.same({"table", 4, "status 4"}, {type(a), status, message})
    h.assertReleased()
  end)
end)
