-- cleanup.lua: cleans a repository up, but keeps the per-version archives of the scan engines.
--
--   lua5.2 cleanup.lua REPOSITORY
--
-- The clean-up resets server.ini and offers each per-version archive of packages/
-- (<identity>_<version>.zip; never the _merged.zip archives) to the predicate: a true answer keeps
-- it, nothing or false lets it be deleted. An error raised in the predicate keeps the archive.
local update = require "update"

local repository = arg[1]
if not repository then
  io.stderr:write("usage: lua5.2 cleanup.lua REPOSITORY\n")
  os.exit(2)
end

local function keep(path)
  local identity = path:match("([^/_]+)_[^/_]+%.zip$")
  local ok, component = pcall(update.tocomponent, identity)
  if ok and component and component.klass == 2 then
    print("keep    " .. path)
    return true
  end
  print("remove  " .. path)
end

local done, message = update.removeke(repository, keep)
if not done then
  io.stderr:write("cleanup: " .. message .. "\n")
  os.exit(1)
end
