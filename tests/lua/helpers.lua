-- Shared by the busted suites: temporary directories, the machine-wide semaphore file, and
-- reading the fake relay's call log. The fake relay is loaded only by the functions that read it,
-- so that the suites against the local relay can use the rest.
local assert = require "luassert"

local function fake() return require "fakerelay" end

local helpers = {}

helpers.SEMAPHORE = "/dev/shm/sem.zovrelay"

function helpers.tempdir()
  local path = os.tmpname()
  os.remove(path)
  assert(os.execute("mkdir -p '" .. path .. "'"))
  return path
end

function helpers.rmtree(path)
  assert(path:match("^/tmp/lua_[%w_]+$"), "refusing to remove " .. path)
  os.execute("rm -rf '" .. path .. "'")
end

function helpers.write(path, text)
  local file = assert(io.open(path, "wb"))
  file:write(text)
  file:close()
end

function helpers.read(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local text = file:read("*a")
  file:close()
  return text
end

function helpers.exists(path)
  local file = io.open(path, "rb")
  if file then file:close() end
  return file ~= nil
end

function helpers.makeSemaphore() helpers.write(helpers.SEMAPHORE, "") end

-- The logged calls of one name, or the names of all calls in order.
function helpers.calls(name)
  local found = {}
  for _, call in ipairs(fake().calls()) do
    if name == nil then
      if call.name ~= "GetStatusMessage" then found[#found + 1] = call.name end
    elseif call.name == name then
      found[#found + 1] = call
    end
  end
  return found
end

function helpers.narrow(codes)
  if codes == nil then return nil end
  local bytes = {}
  for i, c in ipairs(codes) do bytes[i] = string.char(c % 256) end
  return table.concat(bytes)
end

-- Raises unless the fake holds no context and no record.
function helpers.assertReleased()
  assert.are.same({contexts = 0, records = 0}, fake().counts())
end

return helpers
