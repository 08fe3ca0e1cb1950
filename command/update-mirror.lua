#!/usr/bin/env lua5.2
-- update-mirror: runs one mirror job from a configuration file, for cron and systemd timers.
-- The work is in the modules update_mirror.* installed beside it: arguments (with the
-- documentation table DOC that --help and the manual page are made from), configuration, output
-- and actions.

-- Where update.so and the command's modules lie relative to this script once installed; the
-- install rules fill them in.
local LIBDIR = nil
local LUADIR = nil

local here = (arg and arg[0] or ""):match("^(.*)/[^/]*$") or "."
local function beside(directory) return directory:sub(1, 1) == "/" and directory or here .. "/" .. directory end
package.path = beside(LUADIR or ".") .. "/?.lua;" .. package.path

local arguments = require "update_mirror.arguments"
local output = require "update_mirror.output"
local EXIT, fail = arguments.EXIT, output.fail

local function main(args)
  local ok, given = pcall(arguments.parse, args)
  if not ok then
    if type(given) == "table" then fail(EXIT.usage, "%s", given.problem) end
    error(given, 0)
  end
  if given.help then print(arguments.help()); os.exit(EXIT.ok) end
  if LIBDIR then package.cpath = beside(LIBDIR) .. "/?.so;" .. package.cpath end
  local loaded, update = pcall(require, "update")
  if not loaded then fail(EXIT.failure, "cannot load the update module: %s", tostring(update):match("[^\n]*")) end
  if given.version then
    local version = update.version()
    print(arguments.DOC.name .. " 1.0.0, relay library " .. (version and version.string or "not started"))
    os.exit(EXIT.ok)
  end
  local cjson
  if given.json then
    local found, library = pcall(require, "cjson")
    if not found then fail(EXIT.failure, "--json needs lua-cjson: %s", tostring(library):match("[^\n]*")) end
    cjson = library
  end
  output.setup(update, cjson)
  if not given.config and not given.help then
    local default = io.open(arguments.DEFAULT_CONFIG)
    if default then default:close(); given.config = arguments.DEFAULT_CONFIG end
  end
  local metrics = os.getenv("UPDATE_METRICS_DIR")
  if metrics and metrics ~= "" and not io.open(metrics .. "/.") then
    output.warn("UPDATE_METRICS_DIR: %s is no directory; the run writes no metrics", metrics)
  end
  local checked, settings = pcall(require("update_mirror.configuration").configure, given, update)
  if not checked then
    if type(settings) == "table" then fail(EXIT.usage, "%s", settings.problem) end
    error(settings, 0)
  end
  io.stdout:setvbuf("line")
  local action = given.list and "list" or given.export and "export" or given.dry_run and "dry_run" or
                 given.verify and "verify" or given.repair and "repair" or "mirror"
  return require("update_mirror.actions").run(action, given, settings, update)
end

local ok, problem = pcall(main, {table.unpack(arg)})
if not ok then fail(EXIT.failure, "%s", tostring(problem):gsub("\n.*", "")) end
