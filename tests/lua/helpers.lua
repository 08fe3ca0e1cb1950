-- Shared by the busted suites: temporary directories, files, the semaphore file (private to the test)
-- and the fake relay's log, loaded only where read so that the local relay's suites can use the rest.
local assert = require "luassert"

local h = {SEMAPHORE = "/dev/shm/sem.zovrelay"}

function h.tempdir()
  local path = os.tmpname()
  os.remove(path)
  assert(os.execute("mkdir -p '" .. path .. "'"))
  return path
end

function h.rmtree(path)
  assert(path:match("^/tmp/lua_[%w_]+$"), "refusing to remove " .. path)
  os.execute("rm -rf '" .. path .. "'")
end

function h.write(path, text)
  local file = assert(io.open(path, "wb"))
  file:write(text)
  file:close()
end

function h.read(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local text = file:read("*a")
  file:close()
  return text
end

function h.exists(path)
  local file = io.open(path, "rb")
  if file then file:close() end
  return file ~= nil
end
function h.makeSemaphore() h.write(h.SEMAPHORE, "") end

-- The logged calls of one name, or the names of all calls but GetStatusMessage, in order.
function h.calls(name)
  local found = {}
  for _, call in ipairs(require("fakerelay").calls()) do
    if name == call.name then found[#found + 1] = call
    elseif name == nil and call.name ~= "GetStatusMessage" then found[#found + 1] = call.name end
  end
  return found
end

function h.narrow(codes)
  local bytes = {}
  for i, c in ipairs(codes or {}) do bytes[i] = string.char(c % 256) end
  return codes and table.concat(bytes)
end

-- Raises unless the fake holds no context and no record.
function h.assertReleased() assert.are.same({contexts = 0, records = 0}, require("fakerelay").counts()) end

return h
