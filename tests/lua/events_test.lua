local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

-- Runs a mirror during which the fake raises the given events; returns what the handlers saw
-- and what the relay was answered.
local function raise(events, options)
  fake.reset()
  for _, e in ipairs(events) do fake.event(e[1], e[2]) end
  local seen = {}
  local function record(answer)
    return function(event)
      seen[#seen + 1] = event
      if type(answer) == "function" then return answer() end
      return answer
    end
  end
  local handlers = {}
  for key, answer in pairs(options) do handlers[key] = record(answer) end
  handlers.ke = true
  local results = {update.everything("repo", "c1t1", nil, handlers)}
  h.assertReleased()
  assert.are.equal(3, #results)
  assert.are.equal(1, results[2])
  return seen, h.calls("Duplicate")[1].answers
end

describe("events", function()
  it("reach the handler as tables and its answer goes back", function()
    local cases = {  -- handler result -> answer
      {false, 1}, {true, 0}, {0, 0}, {"", 0},
      {function() error("stop") end, 0}, {function() error() end, 1}, {function() return end, 1}, {function() return nil, true end, 1},
    }
    for i, case in ipairs(cases) do
      local _, answers = raise({{1, {total = 10, finished = 5}}}, {progress = case[1]})
      assert.are.same({case[2]}, answers, "case " .. i)
    end
  end)

  it("carry type, total, finished and information", function()
    local seen = raise({
      {0, {information = "http://src", total = 2^40, finished = 0}},
      {4, {information = {112, 233, 0xFFFFFFE9}, total = "18446744073709551615", finished = 7}},
      {5, {total = 1, finished = 1}},
      {2, nil},
    }, {download = true, downloadbegin = false, downloadend = false, removebegin = false})
    assert.are.same({type = "download", information = "http://src", total = 2^40, finished = 0}, seen[1])
    assert.are.same({type = "downloadbegin", information = "p?\233", total = 2^64, finished = 7}, seen[2])
    assert.is_true(seen[2].total > 0)
    assert.are.same({type = "downloadend", total = 1, finished = 1}, seen[3])
    assert.are.same({type = "removebegin"}, seen[4])
  end)

  it("without a handler cost no call and answer 1", function()
    local seen, answers = raise({{1, nil}, {3, nil}, {9, nil}}, {progress = false})
    assert.are.equal(1, #seen)
    assert.are.same({1, 1, 1}, answers)
  end)

  it("of unnamed types go to the unknown handler", function()
    local seen, answers = raise({{9, nil}, {-1, nil}}, {progress = false, unknown = true})
    assert.are.same({{type = "unknown"}, {type = "unknown"}}, seen)
    assert.are.same({0, 0}, answers)
  end)

  it("answer 0 when looking up the handler raises", function()
    fake.reset()
    fake.event(9, nil)
    local options = setmetatable({progress = print, ke = true}, {__index = function() error("lookup") end})
    update.everything("repo", "c1t1", nil, options)
    assert.are.same({0}, h.calls("Duplicate")[1].answers)
    h.assertReleased()
  end)
end)
