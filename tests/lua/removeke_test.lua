local update = require "update"
local h = require "helpers"

local INDEX = "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n"

describe("removeke", function()
  local repo
  before_each(function()
    repo = h.tempdir()
    assert(os.execute("mkdir -p '" .. repo .. "/packages'"))
    h.write(repo .. "/server.ini", "[PATTERN]\nc3t4l1p-1r-1o-1 16.1230.0.0 x.zip 1 00\n")
  end)
  after_each(function() h.rmtree(repo) end)

  local function package(name) return repo .. "/packages/" .. name end

  it("resets the index and deletes superseded archives only", function()
    local deleted = {"pattern_1234.zip", "abcdefg.zip", "engine_Merged.zip"}
    local kept = {"engine_merged.zip", "abcdef.zip", "pattern.ZIP", "pattern.zip.part", ".c3t4.part", "notes.txt"}
    for _, name in ipairs(deleted) do h.write(package(name), "x") end
    for _, name in ipairs(kept) do h.write(package(name), "x") end
    assert.are.same({true}, {update.removeke(repo .. "/")})
    assert.are.equal(INDEX, h.read(repo .. "/server.ini"))
    for _, name in ipairs(deleted) do assert.is_false(h.exists(package(name)), name) end
    for _, name in ipairs(kept) do assert.is_true(h.exists(package(name)), name) end
  end)

  it("asks the predicate about each candidate by its full path", function()
    local answers = {  -- predicate result -> archive kept
      {nil, false}, {false, false}, {0, true}, {"", true}, {"error", true}, {"nothing", false},
    }
    for i, case in ipairs(answers) do h.write(package("candidate_" .. i .. ".zip"), "x") end
    h.write(package("c3t4_merged.zip"), "x")
    local offered = {}
    assert.is_true(update.removeke(repo, function(path)
      offered[#offered + 1] = path
      local i = tonumber(path:match("candidate_(%d+)%.zip$"))
      local answer = answers[i][1]
      if answer == "error" then error("keep it") end
      if answer == "nothing" then return end
      return answer
    end))
    table.sort(offered)
    assert.are.equal(#answers, #offered)
    assert.are.equal(repo .. "/packages/candidate_1.zip", offered[1])
    for i, case in ipairs(answers) do
      assert.are.equal(case[2], h.exists(package("candidate_" .. i .. ".zip")), "case " .. i)
    end
  end)

  it("refuses a directory without an index and bad arguments", function()
    os.remove(repo .. "/server.ini")
    h.write(package("old.zip.zip"), "x")
    assert.are.same({nil, repo .. " is not a repository"}, {update.removeke(repo)})
    assert.is_true(h.exists(package("old.zip.zip")))
    local cases = {
      {{nil}, "bad argument #1 to 'removeke' (expected repository path)"},
      {{repo, false}, "bad argument #2 to 'removeke' (expected function)"},
      {{repo, "f"}, "bad argument #2 to 'removeke' (expected function)"},
    }
    for _, case in ipairs(cases) do
      local ok, message = pcall(function() local r = update.removeke(case[1][1], case[1][2]); return r end)
      assert.is_false(ok)
      assert.are.equal(case[2], message:gsub("^.-:%d+: ", ""))
    end
  end)

  it("still succeeds without packages or with a read-only index", function()
    h.rmtree(repo)
    assert(os.execute("mkdir -p '" .. repo .. "'"))
    h.write(repo .. "/server.ini", "old")
    assert.are.same({true}, {update.removeke(repo, nil)})
    assert.are.equal(INDEX, h.read(repo .. "/server.ini"))
    local savedOpen = io.open
    io.open = function(name, mode) if mode == "w" then return nil end return savedOpen(name, mode) end
    h.write(repo .. "/server.ini", "old")
    local ok, result = pcall(update.removeke, repo)
    io.open = savedOpen
    assert.are.same({true, true}, {ok, result})
    assert.are.equal("old", h.read(repo .. "/server.ini"))
  end)
end)
