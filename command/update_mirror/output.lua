-- update-mirror's output: the human lines (on standard output, or standard error with --json),
-- sizes and times, the run's summary and its JSON, the live progress of a download, and the final
-- line and exit status.
local arguments = require "update_mirror.arguments"
local EXIT, EXIT_OF_STATUS = arguments.EXIT, arguments.EXIT_OF_STATUS

local M = {}
local update, cjson  -- the module, and lua-cjson with --json: given by setup

local NAME = "update-mirror"
local function fail(code, format, ...)
  io.stdout:flush()
  io.stderr:write(NAME, ": ", string.format(format, ...), "\n")
  os.exit(code)
end

-- A warning: on standard error, whatever --quiet and --json say.
local function warn(format, ...)
  io.stdout:flush()
  io.stderr:write(NAME, ": ", string.format(format, ...), "\n")
end

------------------------------------------------------------------------------ output helpers

local function now()
  local file = io.open("/proc/uptime")
  local seconds = file and file:read("*n")
  if file then file:close() end
  return seconds or os.time()
end

local function size(bytes)
  if bytes < 1024 then return string.format("%d B", bytes) end
  local units, unit = {"KiB", "MiB", "GiB", "TiB"}, 0
  repeat bytes, unit = bytes / 1024, unit + 1 until bytes < 1024 or unit == #units
  return string.format("%.1f %s", bytes, units[unit])
end

local function fileSize(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local bytes = file:seek("end")
  file:close()
  return bytes
end

-- Also for directories, which open for reading but whose size is not theirs to tell.
local function exists(path)
  local file = io.open(path, "rb")
  if file then file:close() end
  return file ~= nil
end

local function isProduct(entity) return entity.name:match("^c%-?%d+t%-?%d+v") ~= nil end

-- The human lines; with --json standard output carries only the JSON document and standard
-- error only warnings and failures, so the lines are dropped.
local out = io.stdout
local function say(format, ...) if out then out:write(string.format(format, ...), "\n") end end

-- The relay's whole message (addresses in full, the proxy named), where the relay is ours: the
-- module's is cut to 63 characters.
local found, companion = pcall(require, "localrelay")
if not found then companion = nil end
local function whole(status, message)
  if companion and not update.ok(status) then return companion.message(status) or message end
  return message
end

local function summaryOf(settings, status, message)
  message = whole(status, message)
  local code = update.ok(status) and EXIT.ok or (EXIT_OF_STATUS[status] or EXIT.failure)
  return {status = status, message = message, exit = code, repository = settings.repository,
          downloaded = {}, skipped = {}, failed = {}, removed = {},
          bytes = 0, seconds = 0}
end

-- JSON has no way to tell an empty list from an empty object in Lua: the summary's lists are
-- written as lists even when empty.
local function emitJson(document)
  local text = cjson.encode(document)
  for _, key in ipairs{"downloaded", "skipped", "failed", "removed", "components"} do
    text = text:gsub('"' .. key .. '":{}', '"' .. key .. '":[]')
  end
  io.stdout:write(text, "\n")
end

local function finish(given, summary)
  if given.json then emitJson(summary) end
  if summary.exit ~= EXIT.ok then
    local reason = summary.reason or summary.message
    if update.ok(summary.status) then fail(summary.exit, "%s", reason) end
    fail(summary.exit, "%s (status %d)", reason, summary.status)
  end
  os.exit(EXIT.ok)
end

-- Whether standard output is a terminal (the companion module answers; without it, no).
local function terminal()
  return out == io.stdout and os.getenv("TERM") ~= "dumb" and companion ~= nil and companion.isterminal(1)
end

-- The download's progress from the relay's events. Every handler returns nothing: a true answer
-- would cancel the mirror. With concurrent transfers the events of several packages interleave:
-- the line shows the sum of what each has, so it never runs backwards.
local function progress(summary, given)
  local live = not given.quiet and terminal()
  local planned, done, started, shown = 0, 0, now(), false
  local inFlight, current, highest = {}, 0, 0
  local function line(path, bytes)
    local percent = planned > 0 and math.floor(100 * bytes / planned) or 100
    local file = path:match("[^/]*$")
    if #file > 32 then file = "..." .. file:sub(-29) end
    local seconds = now() - started
    return string.format("%-32s %9s of %-9s %3d%%  %s", file, size(bytes), size(planned), percent,
                         seconds > 0 and size(bytes / seconds) .. "/s" or "-")
  end
  local handlers = {
    download = function(event) planned, started, summary.source = event.total, now(), event.information end,
    progress = function(event)
      current = current - (inFlight[event.information] or 0) + event.finished
      inFlight[event.information] = event.finished
      highest = math.max(highest, done + current)
      if live then
        io.stdout:write("\r\27[K  ", line(event.information, highest))
        io.stdout:flush()
        shown = true
      end
    end,
    removebegin = function(event) table.insert(summary.removed, {path = event.information:gsub("//+", "/")}) end,
    downloadend = function(event)
      current = current - (inFlight[event.information:match("^(.-): ") or event.information] or 0)
      inFlight[event.information:match("^(.-): ") or event.information] = nil
      if event.finished ~= event.total then
        local path, reason = event.information:match("^(.-): (.*)$")
        table.insert(summary.failed, {path = path or event.information, reason = reason or "failed"})
        if shown then io.stdout:write("\r\27[K"); shown = false end
        warn("failed: %s", event.information)
        return
      end
      done = done + event.total
      highest = math.max(highest, done + current)
      table.insert(summary.downloaded, {path = event.information, bytes = event.total})
      if not live and not given.quiet then say("  %s", line(event.information, highest)) end
    end,
  }
  local function stop()
    if shown then io.stdout:write("\r\27[K") end
    summary.bytes = done
  end
  return handlers, stop
end

-- `json`: lua-cjson, when --json was given.
function M.setup(module, json)
  update, cjson = module, json
  if json then out = nil end
end

M.fail, M.warn, M.now, M.size, M.fileSize, M.exists, M.isProduct = fail, warn, now, size, fileSize, exists, isProduct
M.say, M.summaryOf, M.emitJson, M.finish, M.progress, M.whole = say, summaryOf, emitJson, finish, progress, whole
return M
