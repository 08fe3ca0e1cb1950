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

  it("resets the index and deletes superseded archives only, asking the predicate about each", function()
    local names = {  -- archive -> kept without a predicate, predicate's answer, kept with it
      {"pattern_1234.zip", false, nil, false}, {"abcdefg.zip", false, false, false}, {"engine_Merged.zip", false, 0, true},
      {"candidate_1.zip", false, "", true}, {"candidate_2.zip", false, "error", true},
      {"candidate_3.zip", false, "nothing", false},
      {"engine_merged.zip", true}, {"abcdef.zip", true}, {"pattern.ZIP", true}, {"pattern.zip.part", true},
      {".c3t4.part", true}, {"notes.txt", true},
    }
    for _, predicate in ipairs{false, true} do
      for _, case in ipairs(names) do h.write(package(case[1]), "x") end
      local offered = {}
      assert.are.same({true}, {update.removeke(repo .. (predicate and "" or "/"), predicate and function(path)
        local name = path:match("[^/]*$")
        offered[#offered + 1] = path == package(name) and name
        for _, case in ipairs(names) do
          if case[1] == name and case[3] == "error" then error("keep it") end
          if case[1] == name and case[3] ~= "nothing" then return case[3] end
        end
      end or nil)})
      assert.are.equal(INDEX, h.read(repo .. "/server.ini"))
      for _, case in ipairs(names) do
        assert.are.equal(case[predicate and 4 or 2] or case[2], h.exists(package(case[1])), case[1])
      end
      assert.are.equal(predicate and 6 or 0, #offered)
    end
  end)

  it("refuses a directory without an index and bad arguments", function()
    os.remove(repo .. "/server.ini")
    h.write(package("old.zip.zip"), "x")
    assert.are.same({nil, repo .. " is not a repository"}, {update.removeke(repo)})
    assert.is_true(h.exists(package("old.zip.zip")))
    for _, case in ipairs{{{nil}, "#1 to 'removeke' (expected repository path)"}, {{repo, false}, "#2 to 'removeke' (expected function)"}} do
      local ok, message = pcall(function() local r = update.removeke(case[1][1], case[1][2]); return r end)
      assert.are.same({false, "bad argument " .. case[2]}, {ok, (message:gsub("^.-:%d+: ", ""))})
    end
  end)

  it("still succeeds without packages", function()
    os.execute("rmdir '" .. repo .. "/packages'")
    assert.are.same({true, INDEX}, {update.removeke(repo, nil), h.read(repo .. "/server.ini")})
  end)
end)
