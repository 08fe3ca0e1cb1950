-- update-mirror's actions: the mirror with its clean-up, the dry run, the verification and the
-- repair, the listing and the export. Each ends the process with its exit status.
--
-- Every answer about a run comes from the relay's own plan (through the companion module
-- localrelay): the dry run is the relay planning without writing, the real run reports the plan
-- it executed, so the two cannot disagree. The command itself never runs another program.
local arguments = require "update_mirror.arguments"
local configuration = require "update_mirror.configuration"
local output = require "update_mirror.output"
local EXIT, EXIT_OF_STATUS = arguments.EXIT, arguments.EXIT_OF_STATUS
local MODES, isIdentifier = configuration.MODES, configuration.isIdentifier
local fail, warn, now, size, fileSize, exists, isProduct =
  output.fail, output.warn, output.now, output.size, output.fileSize, output.exists, output.isProduct
local say, summaryOf, emitJson, finish, progress = output.say, output.summaryOf, output.emitJson, output.finish, output.progress

local update, localrelay, cjson  -- given by run; localrelay is nil on a relay other than ours

------------------------------------------------------------------------------ the relay's plan

-- The repository's packages directory, joined as the clean-up joins it.
local function packagesOf(settings)
  local root = settings.repository
  return root .. (root:sub(-1) == "/" and "" or "/") .. "packages/"
end

-- The keep rule of the clean-up: spares the per-version archives of the kinds of component it names.
local function keeper(settings)
  local kinds = {}
  for _, name in ipairs(settings.cleanup.keep) do kinds[#kinds + 1] = update.tocomponent(name) end
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

-- The clean-up's own rule for the names it offers (see removeke).
local function cleanable(name)
  return #name >= 11 and name:sub(-4) == ".zip" and name:sub(-11) ~= "_merged.zip"
end

-- One mirror call of the configured kind, through the relay's run modes when ours is there.
-- Answers the plan the relay made (decoded; nil when it made none), status and message.
local function relay(settings, modes, extra)
  local options = {ke = true}  -- the command runs the clean-up itself, with the keep rule
  for key, value in pairs(settings.options) do options[key] = value end
  for key, value in pairs(extra or {}) do options[key] = value end
  local fn = update[MODES[settings.mirror]]
  local args = {settings.repository, settings.products, settings.sources, options, settings.components}
  if not localrelay then
    local _, status, message = fn(table.unpack(args, 1, 5))
    return nil, status, message
  end
  modes.answer = false  -- what the run did is read from its plan and report, not its answer
  local text, _, status, message = localrelay.run(modes, fn, table.unpack(args, 1, 5))
  local decoded, plan = pcall(cjson.decode, text or "null")
  return decoded and plan ~= cjson.null and plan or nil, status, message
end

-- What a plan says the run does: downloads (each with name, version, path, bytes), the versions
-- it finds held, those the file type rule excludes, and the archives removed (by the relay's
-- keepcount and, when enabled, by the clean-up afterwards), with paths as the clean-up forms them.
local function reading(settings, plan)
  local result = {download = {}, held = {}, excluded = {}, removed = {}, bytes = 0}
  local packages, removed = packagesOf(settings), {}
  for _, component in ipairs(plan.components) do
    for _, v in ipairs(component.versions) do
      local item = {name = component.identity, version = v.version, path = v.path, bytes = v.size}
      local list = (v.action == "download" or v.action == "heal") and result.download or
                   v.action == "held" and result.held or v.action == "excluded" and result.excluded
      if list then list[#list + 1] = item end
      if list == result.download then result.bytes = result.bytes + v.size end
    end
    for _, name in ipairs(component.pruned) do removed[name] = fileSize(packages .. name) or 0 end
  end
  if settings.cleanup.enabled then
    local keep = keeper(settings)
    for name, bytes in pairs(plan.files) do
      if cleanable(name) and not keep(packages .. name) then removed[name] = bytes end
    end
  end
  for name, bytes in pairs(removed) do result.removed[#result.removed + 1] = {path = packages .. name, bytes = bytes} end
  table.sort(result.removed, function(a, b) return a.path < b.path end)
  return result
end

-- The damage a full read-back found: one entry per damaged copy or unreadable archive.
local function damageOf(plan)
  local found = {}
  for _, item in ipairs(plan.damaged or {}) do
    for _, version in ipairs(item.versions) do
      found[#found + 1] = {name = item.identity, version = version, what = "damaged copy in its merged archive"}
    end
  end
  for _, identity in ipairs(plan.unreadable or {}) do
    found[#found + 1] = {name = identity, what = "merged archive missing or unreadable"}
  end
  for _, name in ipairs(plan.healed_archives or {}) do
    found[#found + 1] = {name = name, what = "per-version archive differs from its manifest"}
  end
  return found
end

local function needLocalRelay(what)
  if not localrelay then
    fail(EXIT.failure, "%s needs the local relay's companion module localrelay.so beside update.so", what)
  end
end

-- The signing key and the trusted keys of the configuration, handed to the relay for the calls
-- that follow (beside REPOSITORY/.trusted-keys and UPDATE_SIGNING_KEY, which plain scripts use).
local function keys(settings)
  local trusted = settings.trusted_keys
  if not settings.signing_key and not trusted then return end
  needLocalRelay(settings.signing_key and "signing_key" or "trusted_keys")
  local text = trusted and trusted.text
  if trusted and trusted.file then
    local file, problem = io.open(trusted.file, "r")
    if not file then fail(EXIT.usage, "trusted_keys: %s", problem) end
    text = file:read("*a")
    file:close()
  end
  localrelay.keys(settings.signing_key, text)
end

local function plural(count, word) return string.format("%d %s%s", count, word, count == 1 and "" or "s") end

------------------------------------------------------------------------------ actions

local function dryRun(given, settings)
  needLocalRelay("--dry-run")
  local started = now()
  local plan, status, message = relay(settings, {plan = true})
  local summary = summaryOf(settings, status, message)
  summary.dry_run = true
  if not update.ok(status) or not plan then
    summary.reason = "planning failed: " .. summary.message
    return finish(given, summary)
  end
  local planned = reading(settings, plan)
  say("dry run: %s into %s; nothing is changed", settings.mirror, settings.repository)
  for _, item in ipairs(planned.excluded) do
    say("  excluded  %-28s %-10s %10s  %s (its file type)", item.name, item.version, size(item.bytes), item.path)
  end
  for _, item in ipairs(planned.download) do
    say("  download  %-28s %-10s %10s  %s", item.name, item.version, size(item.bytes), item.path)
  end
  for _, item in ipairs(planned.held) do say("  held      %-28s %s", item.name, item.version) end
  local removedBytes = 0
  for _, item in ipairs(planned.removed) do
    removedBytes = removedBytes + item.bytes
    say("  remove    %-39s %10s", item.path:match("[^/]*$"), size(item.bytes))
  end
  summary.downloaded, summary.skipped, summary.removed, summary.bytes =
    planned.download, planned.held, planned.removed, planned.bytes
  say("would download %s, %s; %d already held; %s", plural(#planned.download, "package"), size(planned.bytes),
      #planned.held, string.format("would remove %s, %s%s", plural(#planned.removed, "archive"), size(removedBytes),
                                   settings.cleanup.enabled and " (with the clean-up)" or ""))
  summary.seconds = math.floor((now() - started) * 1000 + 0.5) / 1000
  finish(given, summary)
end

-- Reads every held archive back in full, without writing anything; reports the damage.
local function verify(given, settings)
  needLocalRelay("--verify")
  local started = now()
  local plan, status, message = relay(settings, {plan = true, readback = true})
  local summary = summaryOf(settings, status, message)
  if not update.ok(status) or not plan then
    summary.reason = "verifying failed: " .. summary.message
    return finish(given, summary)
  end
  summary.damaged = damageOf(plan)
  for _, item in ipairs(summary.damaged) do warn("damaged: %s %s: %s", item.name, item.version or "", item.what) end
  summary.seconds = math.floor((now() - started) * 1000 + 0.5) / 1000
  if #summary.damaged > 0 then
    summary.exit, summary.reason = EXIT.repository, string.format("%s found in %s (--repair heals)",
                                                                   plural(#summary.damaged, "damaged item"), settings.repository)
  else
    say("verified %s: every held archive reads back as its manifest says", settings.repository)
  end
  finish(given, summary)
end

-- The clean-up after a mirror, with the keep rule; the paths it removed go into the summary.
local function cleanUp(settings, summary)
  local keep, offered = keeper(settings), {}
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
    if not exists(path) then table.insert(summary.removed, {path = path}) end
  end
end

-- What the run found held already, as its report counts it: for a run that kept no plan.
local function heldReported(settings)
  local file = cjson and io.open(settings.repository .. "/report.json", "r")
  if not file then return nil end
  local decoded, report = pcall(cjson.decode, file:read("*a") or "")
  file:close()
  local totals = decoded and type(report) == "table" and report.totals
  return type(totals) == "table" and type(totals.held) == "number" and totals.held or nil
end

-- What the repository holds, counted from its own listing: for a run that made no plan.
local function heldCount(settings)
  local held, status = update.list(settings.repository, {})
  local count = 0
  if update.ok(status) then
    for _, entity in ipairs(held or {}) do if not isProduct(entity) then count = count + 1 end end
  end
  return count
end

local function mirror(given, settings, repair)
  local started = now()
  local summary = summaryOf(settings, 1, "success")
  local handlers, stop = progress(summary, given)
  if localrelay then localrelay.stoponsignal() end
  if not given.quiet then say("%s %s into %s", repair and "repairing" or "mirroring", settings.mirror, settings.repository) end
  -- The plan only where it is shown: decoding a large repository's costs more than its quiet night.
  local plan, status, message = relay(settings, {readback = repair, keep = given.json or repair or false}, handlers)
  stop()
  local stoppedBy = localrelay and localrelay.stopped()
  local rest = summaryOf(settings, status, message)
  summary.status, summary.message, summary.exit = rest.status, rest.message, rest.exit
  if not update.ok(status) then summary.reason = "mirroring failed: " .. rest.message end
  local skipped = plan and reading(settings, plan).held
  if skipped then summary.skipped = skipped end
  if repair and plan then
    summary.damaged = damageOf(plan)
    for _, item in ipairs(summary.damaged) do warn("repaired: %s %s: %s", item.name, item.version or "", item.what) end
  end
  -- Never after a repository problem (a busy repository belongs to the run that holds it), nor
  -- after a stop.
  if settings.cleanup.enabled and summary.exit ~= EXIT.repository and summary.exit ~= EXIT.busy and not stoppedBy then
    cleanUp(settings, summary)
  end
  table.sort(summary.removed, function(a, b) return a.path < b.path end)
  summary.seconds = math.floor((now() - started) * 1000 + 0.5) / 1000
  if stoppedBy then
    summary.exit, summary.reason = EXIT.stopped, "stopped by " .. stoppedBy .. "; what was downloaded is kept for the next run"
    return finish(given, summary)
  end
  local count = #summary.downloaded
  local changed = count > 0 or #summary.removed > 0 or #summary.failed > 0 or (summary.damaged and #summary.damaged > 0)
  if changed or not given.quiet then
    local held = skipped and #skipped or update.ok(status) and heldReported(settings) or heldCount(settings)
    say("%s; %d already held; %d failed%s", count == 0 and "nothing downloaded" or
        string.format("downloaded %s, %s in %.2f s", plural(count, "package"), size(summary.bytes), summary.seconds),
        held, #summary.failed, settings.cleanup.enabled and "; removed " .. plural(#summary.removed, "archive") or "")
  end
  finish(given, summary)
end

-- Listing or exporting reads a repository: it must not create one where the path was mistyped.
local function existing(settings)
  if not exists(packagesOf(settings)) then
    fail(EXIT.repository, "%s is not a repository (it has no packages/ directory)", settings.repository)
  end
end

local function list(given, settings)
  existing(settings)
  local held, status, message = update.list(settings.repository, settings.products)
  if not update.ok(status) then fail(EXIT_OF_STATUS[status] or EXIT.failure, "listing %s failed: %s (status %d)", settings.repository, output.whole(status, message), status) end
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
  if not update.ok(status) then fail(EXIT_OF_STATUS[status] or EXIT.failure, "listing %s failed: %s (status %d)", settings.repository, output.whole(status, message), status) end
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
  if not ok then fail(EXIT_OF_STATUS[exported] or EXIT.failure, "exporting %s failed: %s (status %d)", component, output.whole(exported, why), exported) end
  say("exported %s into %s", newest and (component .. " " .. newest.version) or component, directory)
  os.exit(EXIT.ok)
end

local ACTIONS = {list = list, export = export, dry_run = dryRun, verify = verify, mirror = mirror,
                 repair = function(given, settings) return mirror(given, settings, true) end}

-- Runs the action `name` of the checked settings; never returns.
return {run = function(name, given, settings, module)
  update = module
  local found, companion = pcall(require, "localrelay")
  localrelay = found and companion or nil
  local decoder
  found, decoder = pcall(require, "cjson")
  if localrelay and not found then fail(EXIT.failure, "update-mirror needs lua-cjson: %s", tostring(decoder):match("[^\n]*")) end
  cjson = decoder
  keys(settings)
  if name == "export" then return export(given, settings, given.export[1], given.export[2]) end
  return ACTIONS[name](given, settings)
end}
