local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

local function applied(options)
  fake.reset()
  update.list("repo", {}, nil, options)
  h.assertReleased()
  local settings = {}
  for _, call in ipairs(fake.calls()) do
    if call.name == "SetOption" then
      settings[#settings + 1] = {call.option, call.value_hex}
    elseif call.name == "SetStringOption" then
      settings[#settings + 1] = {call.option, call.value}
    elseif call.name == "SubscribeEvent" then
      settings[#settings + 1] = {"event", call.event, call.callback}
    end
  end
  return settings
end

describe("options", function()
  it("reach the relay with their numbers and values", function()
    local cases = {
      {{maxbandwidth = 100}, {{0, "0000000000000064"}}},
      {{maxbandwidth = "100"}, {{0, "0000000000000064"}}},
      {{keepcount = -1}, {{12, "ffffffffffffffff"}}},
      {{maxmerge = 2^40}, {{10, "0000010000000000"}}},
      {{diffcount = 3, httpslevel = 0}, {{11, "0000000000000003"}, {15, "0000000000000000"}}},
      {{buildpatch = true}, {{9, "0000000000000001"}}},
      {{enable_check_file_type_blacklist = false}, {{23, "0000000000000000"}}},
      {{file_type_blacklist = 5}, {{22, {53}}}},
      {{file_type_blacklist = ".cab,EXE"}, {{22, {46, 99, 97, 98, 44, 69, 88, 69}}}},
      {{progress = print}, {{"event", 1, true}}},
      {{unknown = print, ke = false}, {}},
      {nil, {}},
    }
    for _, case in ipairs(cases) do
      local settings = applied(case[1])
      table.sort(settings, function(a, b) return tostring(a[1]) < tostring(b[1]) end)
      assert.are.same(case[2], settings)
    end
  end)

  it("decode strings in the current locale", function()
    assert.are.same({{22, {}}}, applied{file_type_blacklist = "\195\169"})
    if os.setlocale("C.UTF-8", "ctype") then
      local ok, settings = pcall(applied, {file_type_blacklist = "\195\169"})
      os.setlocale("C", "ctype")
      assert.is_true(ok)
      assert.are.same({{22, {233}}}, settings)
    end
  end)

  it("reject entries with their exact messages", function()
    local cases = {
      {"s", "not a table of options"},
      {{maxbandwidth = "fast"}, "maxbandwidth must be a integer"},
      {{buildpatch = 1}, "buildpatch must be a boolean"},
      {{file_type_blacklist = {}}, "file_type_blacklist must be a string"},
      {{progress = 5}, "progress must be a function"},
      {{[1] = true}, "1 is not a valid option"},
      {{[1.5] = true}, "1.5 is not a valid option"},
      {{[true] = 1}, "options must be named"},
      {{Maxbandwidth = 1}, "Maxbandwidth is not a valid option"},
      {{ke = "yes"}, "ke must be boolean"},
      {{removeke = true}, "removeke must be a function"},
      {{unknown = 1}, "unknown must be a function"},
    }
    for _, case in ipairs(cases) do
      h.makeSemaphore()
      fake.reset()
      local ok, message = pcall(update.everything, "repo", "c1t1", "src", case[1])
      assert.is_false(ok)
      assert.are.equal(case[2], message)
      assert.is_nil(h.calls("Duplicate")[1])
      assert.is_false(h.exists(h.SEMAPHORE))  -- sem.zovrelay removed after the context
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

  -- Whether removeke ran, and with which predicate, seen on a real repository directory.
  local function cleanupOf(call, options)
    h.write(repo .. "/server.ini", "old")
    h.write(repo .. "/packages/c3t4_16.zip", "")
    local offered = {}
    if options and options.removeke then
      options.removeke = function(path) offered[#offered + 1] = path; return true end
    end
    fake.reset()
    fake.script("Duplicate", -7)
    call(repo, "c1t1", "src", options)
    local ran = h.read(repo .. "/server.ini") ~= "old"
    return {ran, h.exists(repo .. "/packages/c3t4_16.zip"), #offered}
  end

  it("follows ke and removeke, whatever the status and the order", function()
    local f = function() end
    local cases = {  -- options -> {ran, archive kept, predicate calls}
      {nil, {true, false, 0}},
      {{ke = false}, {true, false, 0}},
      {{ke = true}, {false, true, 0}},
      {{removeke = f}, {true, true, 1}},
      {{removeke = f, ke = false}, {true, true, 1}},
      {{removeke = f, ke = true}, {false, true, 0}},
      {{ke = true, removeke = f}, {false, true, 0}},
    }
    for i, case in ipairs(cases) do
      assert.are.same(case[2], cleanupOf(update.everything, case[1]), "case " .. i)
    end
    assert.are.same({false, true, 0}, cleanupOf(update.list, {removeke = f}))
    assert.are.same({false, true, 0}, cleanupOf(update.list, nil))
    assert.are.same({false, true, 0}, cleanupOf(function(...) return update.components(...) end, nil))
  end)

  it("never changes the results, even when it raises", function()
    h.write(repo .. "/server.ini", "old")
    fake.reset()
    fake.script("Duplicate", 4, {products = {{klass = 1, type = 1}}})
    local savedIo = io
    io = nil  -- removeke itself raises
    local a, status, message = update.everything(repo, "c1t1", "src")
    io = savedIo
    assert.are.equal("table", type(a))
    assert.are.equal(4, status)
    assert.are.equal("status 4", message)
    h.assertReleased()
  end)
end)
