-- update-mirror's actions: the mirror with its clean-up, the dry run (the plan, with sizes from
-- the source's catalog), the listing and the export. Each ends the process with its exit status.
local arguments = require "update_mirror.arguments"
local configuration = require "update_mirror.configuration"
local output = require "update_mirror.output"
local EXIT, EXIT_OF_STATUS = arguments.EXIT, arguments.EXIT_OF_STATUS
local MODES, isIdentifier = configuration.MODES, configuration.isIdentifier
local fail, now, size, quote, fileSize, exists, isProduct =
  output.fail, output.now, output.size, output.quote, output.fileSize, output.exists, output.isProduct
local say, summaryOf, emitJson, finish, progress = output.say, output.summaryOf, output.emitJson, output.finish, output.progress

local update  -- the module: given by run

------------------------------------------------------------------------------ the plan

-- The catalog of the first source that serves one, read the way the relay reads it: sizes and
-- package paths by component identity and version. Only the dry run needs it (for sizes); it is
-- read with curl for http(s) sources, through the source's proxy.
local function readCatalog(sources, options)
  for _, src in ipairs(sources) do
    local text
    if src.url:match("^https?://") then
      local command = {"curl -fsSL --max-time 120"}
      if options.httpslevel == 0 then command[#command + 1] = "-k" end
      if src.proxy then
        local scheme = src.proxy.type == 1 and "socks5h://" or "http://"
        command[#command + 1] = "--proxy " .. quote(scheme .. src.proxy.host .. ":" .. src.proxy.port)
        if src.proxy.user then command[#command + 1] = "--proxy-user " .. quote(src.proxy.user .. ":" .. (src.proxy.password or "")) end
      end
      command[#command + 1] = quote(src.url:gsub("/*$", "") .. "/server.ini") .. " 2>/dev/null"
      local pipe = io.popen(table.concat(command, " "))
      text = pipe:read("*a")
      if not pipe:close() then text = nil end
    else
      local path = src.url:match("^file://localhost(/.*)$") or src.url:match("^file://(/.*)$") or src.url
      path = path:gsub("%%(%x%x)", function(hex) return string.char(tonumber(hex, 16)) end)
      local file = io.open(path:gsub("/*$", "") .. "/server.ini", "rb")
      if file then text = file:read("*a"); file:close() end
    end
    if text and text:match("%[All_Product%]") then
      local catalog = {}
      for line in text:gmatch("[^\n]+") do
        local identity, version, path, bytes = line:match("^%s*(c%S+)%s+(%d+%.%d+%.%d+%.%d+)%s+(%S+)%s+(%d+)%s+%x+%s*$")
        if identity then
          local major, minor, build = version:match("^(%d+)%.(%d+)%.(%d+)")
          catalog[identity .. " " .. tonumber(major) .. "." .. tonumber(minor) .. "." .. tonumber(build)] =
            {path = path, bytes = tonumber(bytes), archive = identity .. "_" .. version .. ".zip"}
        end
      end
      return catalog, src.url
    end
  end
end

-- The relay's file type rule: an extension of the list (a leading dot optional, any case) after
-- a dot at the end of the package path.
local function excluded(options, path)
  if not options.enable_check_file_type_blacklist or not path then return false end
  for item in (options.file_type_blacklist or ""):gmatch("[^,]+") do
    local extension = item:match("^[ \t]*%.?(.-)[ \t]*$"):lower()
    if extension ~= "" and #extension < #path and path:lower():sub(-#extension - 1) == "." .. extension then
      return true
    end
  end
  return false
end

local function catalogKey(entity)
  local major, minor, build = entity.extract:match("v(%d+)%.(%d+)%.(%d+)")
  return entity.name .. " " .. tonumber(major) .. "." .. tonumber(minor) .. "." .. tonumber(build)
end

-- Whether the operation of the configured kind takes this component.
local function selects(settings, entity)
  local mode = settings.mirror
  if mode == "everything" then return true end
  if mode == "components" then
    for _, name in ipairs(settings.components) do
      local kind = update.tocomponent(name)
      if kind.klass == entity.klass and kind.type == entity.type then return true end
    end
    return false
  end
  local pattern = entity.klass == 3 or (entity.klass == 22 and entity.type == 2213)
  return pattern and not (mode == "patterns-except-kerno" and entity.klass == 3 and entity.type == 4)
end

-- Lists the source into a scratch repository (the real one is not opened, so nothing in it can
-- change) and the repository itself, and splits what the run would take into what it would
-- download and what it holds already. Returns nil, status, message when the source's listing fails.
local function plan(settings)
  local scratch = os.tmpname()
  os.remove(scratch)
  local offered, status, message = update.list(scratch, settings.products, settings.sources)
  os.execute("rm -rf " .. quote(scratch))  -- whatever the relay leaves in a repository
  if not update.ok(status) then return nil, status, message, "listing the sources" end
  local held = {}
  if exists(settings.repository .. "/packages") then
    local listed, heldStatus, heldMessage = update.list(settings.repository, {})
    if not update.ok(heldStatus) then return nil, heldStatus, heldMessage, "listing " .. settings.repository end
    for _, entity in ipairs(listed or {}) do held[entity.name .. " " .. entity.version] = true end
  end
  local result, seen = {download = {}, held = {}}, {}
  for _, entity in ipairs(offered or {}) do  -- a success may come without a result
    if not isProduct(entity) and not seen[entity.name] and selects(settings, entity) then
      seen[entity.name] = true
      local list = held[entity.name .. " " .. entity.version] and result.held or result.download
      list[#list + 1] = entity
    end
  end
  return result
end

-- The per-version archives the clean-up would delete, with their sizes; the keep rule spares the
-- kinds of component it names.
local function keeper(settings)
  local kinds = {}
  for _, name in ipairs(settings.cleanup.keep) do
    local kind = update.tocomponent(name)
    kinds[#kinds + 1] = kind
  end
  return function(path)
    local identity = path:match("([^/_]+)_[^/_]+%.zip$")
    local ok, component = pcall(update.tocomponent, identity or "")
    if not ok or not component then return false end
    for _, kind in ipairs(kinds) do
      if kind.klass == component.klass and kind.type == component.type then return true end
    end
    return false
  end
end

-- With buildpatch the run writes a per-version archive of each version it takes (a held one is
-- rebuilt), so the clean-up would remove those too: `archives` names them.
local function removable(settings, archives)
  local found, keep = {}, keeper(settings)
  if not settings.cleanup.enabled then return found end
  local seen = {}
  for _, archive in ipairs(archives) do
    local path = settings.repository .. "/packages/" .. archive.name
    if not keep(path) then found[#found + 1], seen[archive.name] = {path = path, bytes = archive.bytes}, true end
  end
  local pipe = io.popen("ls -A " .. quote(settings.repository .. "/packages") .. " 2>/dev/null")
  for name in pipe:lines() do
    if #name >= 11 and name:match("%.zip$") and not name:match("_merged%.zip$") and not seen[name] then
      local path = settings.repository .. "/packages/" .. name
      if not keep(path) then found[#found + 1] = {path = path, bytes = fileSize(path) or 0} end
    end
  end
  pipe:close()
  table.sort(found, function(a, b) return a.path < b.path end)
  return found
end

------------------------------------------------------------------------------ actions

local function dryRun(given, settings)
  local started = now()
  local planned, status, message, what = plan(settings)
  if not planned then
    local summary = summaryOf(settings, status, message)
    summary.dry_run, summary.reason = true, what .. " failed: " .. message
    return finish(given, summary)
  end
  local catalog, serving = readCatalog(settings.sources, settings.options)
  local summary = summaryOf(settings, 1, "success")
  summary.dry_run, summary.source = true, serving
  say("dry run: %s into %s; nothing is changed", settings.mirror, settings.repository)
  if not catalog then say("  (no source catalog readable for sizes: they show as ?)") end
  for _, entity in ipairs(planned.download) do
    local entry = catalog and catalog[catalogKey(entity)] or {}
    if excluded(settings.options, entry.path) then
      say("  excluded  %-28s %-10s %10s  %s (its file type)", entity.name, entity.version, size(entry.bytes), entry.path)
      goto next
    end
    table.insert(summary.downloaded, {name = entity.name, version = entity.version, friendly = entity.friendly,
                                      path = entry.path, bytes = entry.bytes})
    summary.bytes = summary.bytes + (entry.bytes or 0)
    say("  download  %-28s %-10s %10s  %s", entity.name, entity.version, entry.bytes and size(entry.bytes) or "?",
        entry.path or "")
    ::next::
  end
  for _, entity in ipairs(planned.held) do
    table.insert(summary.skipped, {name = entity.name, version = entity.version, friendly = entity.friendly})
    say("  held      %-28s %s", entity.name, entity.version)
  end
  local archives = {}
  if settings.options.buildpatch then
    for _, list in ipairs{planned.download, planned.held} do
      for _, entity in ipairs(list) do
        local entry = catalog and catalog[catalogKey(entity)]
        if entry then archives[#archives + 1] = {name = entry.archive, bytes = entry.bytes} end
      end
    end
  end
  local removedBytes = 0
  for _, entry in ipairs(removable(settings, archives)) do
    table.insert(summary.removed, entry.path)
    removedBytes = removedBytes + entry.bytes
    say("  remove    %-39s %10s", entry.path:match("[^/]*$"), size(entry.bytes))
  end
  say("would download %d package%s, %s; %d already held; the clean-up would %s",
      #summary.downloaded, #summary.downloaded == 1 and "" or "s", size(summary.bytes), #summary.skipped,
      settings.cleanup.enabled and string.format("reset server.ini and remove %d archive%s, %s", #summary.removed,
        #summary.removed == 1 and "" or "s", size(removedBytes)) or "not run")
  summary.seconds = math.floor((now() - started) * 1000 + 0.5) / 1000
  finish(given, summary)
end

local function mirror(given, settings)
  local started = now()
  -- What is held already, for the summary; the mirror itself decides what it downloads.
  local planned = plan(settings)
  -- The module's own clean-up is off (ke): the command runs it below, with the keep rule, and
  -- never after a repository problem (a busy repository belongs to the run that holds it).
  local options = {ke = true}
  for key, value in pairs(settings.options) do options[key] = value end
  local summary = summaryOf(settings, 1, "success")
  local handlers, stop = progress(summary)
  for key, value in pairs(handlers) do options[key] = value end
  say("mirroring %s into %s", settings.mirror, settings.repository)
  local _, status, message = update[MODES[settings.mirror]](settings.repository, settings.products,
                                                            settings.sources, options, settings.components)
  stop()
  local rest = summaryOf(settings, status, message)
  summary.status, summary.message, summary.exit = rest.status, rest.message, rest.exit
  if not update.ok(status) then summary.reason = "mirroring failed: " .. rest.message end
  for _, entity in ipairs(planned and planned.held or {}) do
    table.insert(summary.skipped, {name = entity.name, version = entity.version, friendly = entity.friendly})
  end
  if settings.cleanup.enabled and summary.exit ~= EXIT.repository then
    local keep = keeper(settings)
    local offered = {}
    local cleaned, problem = update.removeke(settings.repository, function(path)
      if keep(path) then return true end
      offered[#offered + 1] = path
    end)
    -- After a failed mirror its own failure is the one to report (a first run from an
    -- unreachable source leaves no server.ini to clean).
    if not cleaned and summary.exit == EXIT.ok then
      summary.reason, summary.exit = "clean-up failed: " .. problem, EXIT.repository
    end
    for _, path in ipairs(offered) do
      if not exists(path) then table.insert(summary.removed, path) end
    end
  end
  summary.seconds = math.floor((now() - started) * 1000 + 0.5) / 1000
  local count = #summary.downloaded
  say("%s; %d already held; %d failed%s", count == 0 and "nothing downloaded" or
      string.format("downloaded %d package%s, %s in %.2f s", count, count == 1 and "" or "s", size(summary.bytes), summary.seconds),
      #summary.skipped, #summary.failed,
      settings.cleanup.enabled and string.format("; clean-up removed %d archive%s", #summary.removed, #summary.removed == 1 and "" or "s") or "")
  finish(given, summary)
end

-- Listing or exporting reads a repository: it must not create one where the path was mistyped.
local function existing(settings)
  if not exists(settings.repository .. "/packages") then
    fail(EXIT.repository, "%s is not a repository (it has no packages/ directory)", settings.repository)
  end
end

local function list(given, settings)
  existing(settings)
  local held, status, message = update.list(settings.repository, settings.products)
  if not update.ok(status) then fail(EXIT_OF_STATUS[status] or EXIT.failure, "listing %s failed: %s (status %d)", settings.repository, message, status) end
  local products, product = {}, nil
  for _, entity in ipairs(held or {}) do
    if isProduct(entity) then
      product = {name = entity.name, components = {}}
      products[#products + 1] = product
      say("product %s", entity.name)
    elseif product then
      table.insert(product.components, {name = entity.name, version = entity.version, friendly = entity.friendly,
                                        extract = entity.extract})
      say("  %-16s %-10s %s", entity.friendly or "-", entity.version, entity.name)
    end
  end
  if given.json then emitJson({repository = settings.repository, products = products}) end
  os.exit(EXIT.ok)
end

-- A held entity's version as a string that sorts as the version does.
local function versionOf(entity)
  local major, minor, build = entity.extract:match("v(%d+)%.(%d+)%.(%d+)")
  return string.format("%010d.%010d.%010d", major, minor, build)
end

local function export(_, settings, component, directory)
  existing(settings)
  local held, status, message = update.list(settings.repository, {})
  if not update.ok(status) then fail(EXIT_OF_STATUS[status] or EXIT.failure, "listing %s failed: %s (status %d)", settings.repository, message, status) end
  -- A friendly name stands for its component's newest held version (the listing's own entry
  -- under that name is only one of them): the unversioned identifier asks the relay for the newest.
  local wanted, newest = nil, nil
  for _, entity in ipairs(held or {}) do
    if entity.friendly == component and (not newest or versionOf(entity) > versionOf(newest)) then newest = entity end
  end
  if newest then wanted = newest.name end
  if not wanted then
    if not isIdentifier(component) then
      fail(EXIT.usage, "--export: %s is neither a friendly name the repository holds nor an identifier", component)
    end
    wanted = component
  end
  local ok, exported, why = update.extract(settings.repository, wanted, directory)
  if not ok then fail(EXIT_OF_STATUS[exported] or EXIT.failure, "exporting %s failed: %s (status %d)", component, why, exported) end
  say("exported %s into %s", newest and (component .. " " .. newest.version) or component, directory)
  os.exit(EXIT.ok)
end

local ACTIONS = {list = list, export = export, dry_run = dryRun, mirror = mirror}

-- Runs the action `name` of the checked settings; never returns.
return {run = function(name, given, settings, module)
  update = module
  if name == "export" then return export(given, settings, given.export[1], given.export[2]) end
  return ACTIONS[name](given, settings)
end}
