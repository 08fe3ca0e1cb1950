-- cancel.lua: mirrors patterns within a byte budget; before a package would exceed it, the
-- handler cancels the run. What was stored before stays, and the next run goes on from there.
--
--   lua5.2 cancel.lua REPOSITORY SOURCE BUDGET-BYTES
--
-- A handler cancels by returning a true value (or by raising an error); one that only watches
-- must return nothing.
local update = require "update"

local repository, source, budget = arg[1], arg[2], tonumber(arg[3])
if not repository or not source or not budget then
  io.stderr:write("usage: lua5.2 cancel.lua REPOSITORY SOURCE BUDGET-BYTES\n")
  os.exit(2)
end

local spent, stopped = 0, nil
local options = {
  ke = true,  -- leave server.ini as the relay wrote it
  downloadbegin = function(event)
    if spent + event.total > budget then
      stopped = event.information
      return true  -- cancels the operation
    end
    spent = spent + event.total
  end,
}

local _, status, message = update.patterns(repository, {}, source, options)
if stopped then
  print(string.format("stopped before %s: %d of %d bytes spent (%s)", stopped, spent, budget, message))
elseif update.ok(status) then
  print(string.format("complete: %d bytes downloaded", spent))
else
  io.stderr:write(string.format("cancel: mirroring failed: %s (status %d)\n", message, status))
  os.exit(1)
end
