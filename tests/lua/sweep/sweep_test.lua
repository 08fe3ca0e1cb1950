-- Every function with generated arguments, relative paths only, in a fresh working directory: each
-- call returns its documented values or raises a string, leaves no context or record behind, and
-- removes the semaphore file /dev/shm/sem.zovrelay exactly when it asked for a context.
local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

local raising = setmetatable({}, {__index = function() error("index") end, __len = function() error("len") end})
local deep = {}
do local t = deep for _ = 1, 200 do t[1] = {} t = t[1] end end

local values = {
  nil, true, false, 0, -1, 1.5, 2^53, 2^64, -2^63, 0/0, 1/0, -1/0, "", "\0", "c3t4\0l1", "\233\255",
  string.rep("c", 10000), "c3t4l1", "c3t4v1.2.3", "c22t2213", {}, {"c3t4", "c3t5"}, {{url = "u"}},
  {url = "u", proxy = {type = 0/0, port = 1/0, host = 5}}, {maxbandwidth = 1, ke = true}, {progress = print},
  {extract = "c3t4"}, deep, raising, print, function() error("handler") end, coroutine.create(print), io.stdout,
}
local paths = {nil, "r", "r/", "", "sub/r", 7, true, {}, raising}

local triple = function(r, n)
  return n == 3 and (r[1] == nil or r[1] == true or type(r[1]) == "table")
    and type(r[2]) == "number" and type(r[3]) == "string"
end
local shapes = {
  startup = triple, shutdown = triple, version = triple, list = triple, everything = triple,
  patterns = triple, patternsExceptKerno = triple, components = triple, extract = triple,
  ok = function(r, n) return n == 1 and type(r[1]) == "boolean" end,
  tocomponent = function(r, n) return n == 1 and (r[1] == nil or type(r[1]) == "table") end,
  toproduct = function(r, n) return n == 1 and type(r[1]) == "string" end,
  removeke = function(r, n) return (n == 1 and r[1] == true) or (n == 2 and r[1] == nil and type(r[2]) == "string") end,
}

describe("every function with generated arguments", function()
  it("returns its documented values or raises a string, and releases everything", function()
    assert(os.execute("mkdir -p r/packages sub/r packages"))
    h.write("r/server.ini", "")
    h.write("server.ini", "kept")  -- the working directory is no repository: "" never touches it
    h.write("packages/old.zip", "")
    math.randomseed(20261123)
    local calls = 0
    for name in pairs(shapes) do
      for _ = 1, 300 do
        local count = math.random(0, 5)
        local args = {}
        if count >= 1 then args[1] = paths[math.random(1, #paths + 1)] end
        for i = 2, count do args[i] = values[math.random(1, #values + 1)] end
        fake.reset()
        if math.random(3) == 1 then
          fake.script("GetInformation", 1, {products = {{klass = 1, type = 1, components = {{klass = 3, type = 4}}}}})
        end
        h.makeSemaphore()
        local results = table.pack(pcall(update[name], table.unpack(args, 1, count)))
        local where = name .. " call " .. calls .. " (" .. count .. " arguments, first " .. tostring(args[1]) .. "): " .. tostring(results[2])
        if results[1] then
          assert.is_true(shapes[name]({table.unpack(results, 2, results.n)}, results.n - 1), where)
        else
          assert.are.equal("string", type(results[2]), where)
        end
        assert.are.same({contexts = 0, records = 0}, fake.counts(), where)
        assert.are.equal(#h.calls("CreateContext") > 0, not h.exists(h.SEMAPHORE), where)  -- sem.zovrelay
        calls = calls + 1
      end
    end
    update.startup()
    os.remove(h.SEMAPHORE)
    -- Only what the sweep made itself is in its directory.
    local listing = io.popen("find . | sort"):read("*a")
    assert.are.equal(".\n./packages\n./packages/old.zip\n./r\n./r/packages\n./r/server.ini\n./server.ini\n./sub\n./sub/r\n", listing)
    assert.are.equal("kept", h.read("server.ini"))
  end)
end)
