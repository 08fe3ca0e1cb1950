local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

-- Mirrors while the fake raises events ({type, message}): the event tables seen, the answers given.
local function raise(events, answers, options)
  fake.reset()
  for _, e in ipairs(events) do fake.event(e[1], e[2]) end
  local seen = {}
  options = options or {ke = true}
  for key, answer in pairs(answers) do
    options[key] = function(event)
      seen[#seen + 1] = event
      if type(answer) == "function" then return answer() end
      return answer
    end
  end
  assert.are.same({nil, 1, "status 1"}, {update.everything("repo", "c1t1", nil, options)})
  h.assertReleased()
  return seen, h.calls("Duplicate")[1].answers
end

describe("events", function()
  it("reach the handler as tables and its answer goes back", function()
    local cases = {  -- handler result -> answer
      {false, 1}, {true, 0}, {0, 0}, {"", 0}, {function() error("stop") end, 0}, {function() error() end, 1},
      {function() return end, 1}, {function() return nil, true end, 1},
    }
    for i, case in ipairs(cases) do
      assert.are.same({case[2]}, select(2, raise({{1, {total = 10, finished = 5}}}, {progress = case[1]})), "case " .. i)
    end
  end)

  it("carry type, total, finished and information", function()
    local seen = raise({
      {0, {information = "http://src", total = 2^40, finished = 0}},
      {4, {information = {112, 233, 0xFFFFFFE9}, total = "18446744073709551615", finished = 7}},
      {5, {total = 1, finished = 1}}, {2, nil},
    }, {download = true, downloadbegin = false, downloadend = false, removebegin = false})
    assert.are.same({{type = "download", information = "http://src", total = 2^40, finished = 0},
                     {type = "downloadbegin", information = "p?\233", total = 2^64, finished = 7},
                     {type = "downloadend", total = 1, finished = 1}, {type = "removebegin"}}, seen)
  end)

  it("without a handler answer 1, of unnamed types go to the unknown handler", function()
    local seen, answers = raise({{1, nil}, {3, nil}, {9, nil}}, {progress = false})
    assert.are.same({1, {1, 1, 1}}, {#seen, answers})
    seen, answers = raise({{9, nil}, {-1, nil}}, {progress = false, unknown = true})
    assert.are.same({{{type = "unknown"}, {type = "unknown"}}, {0, 0}}, {seen, answers})
  end)

  it("answer 0 when looking up the handler raises", function()
    local options = setmetatable({ke = true}, {__index = function() error("lookup") end})
    assert.are.same({0}, select(2, raise({{9, nil}}, {progress = true}, options)))
  end)
end)
