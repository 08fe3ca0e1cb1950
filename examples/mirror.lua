-- mirror.lua: mirrors the patterns of an update source into a repository; made to run from cron.
--
--   lua5.2 mirror.lua [--limit KIB/S] [--product ID]... REPOSITORY SOURCE [EXPORT-DIRECTORY]
--
-- SOURCE is a directory, a file:// URL or an http(s):// URL. The script lists the source, mirrors
-- the pattern files and the rule package of its products (each --product, or every product),
-- lists what the repository holds, exports one component into EXPORT-DIRECTORY (when given),
-- cleans the repository up and shows what is left in packages/. Each package that fails is
-- printed as it fails; the last line sums the run up. On a terminal the download is one live line;
-- elsewhere (cron, a pipe) one line per package. The relay also leaves REPOSITORY/report.json.
--
-- Exit status, for cron and monitoring: 0 success; 1 another failure; 2 bad arguments;
-- 3 a source problem (unreachable, refused, HTTP error, bad certificate or catalog, missing or
-- damaged package); 4 a repository problem (not accessible, busy, full, permission denied).
local update = require "update"

-- What to mirror, for your site.
local PRODUCTS = {}             -- product identifiers; {} mirrors the patterns of every product
local EXPORT = "kerno_english"  -- the friendly name of the component to export
local OPTIONS = {
  buildpatch = true,  -- per-version archives beside the merged ones; the clean-up removes them
  ke = true,          -- no clean-up right after the mirror: it runs below, after the export
}

local NAME = "mirror"
io.stdout:setvbuf("line")  -- so that a failure on stderr lands after what led to it

-- Exit statuses by what the administrator has to look at; the relay's statuses by the same.
local EXIT = {other = 1, arguments = 2, source = 3, repository = 4}
local KIND = {[-3] = "repository", [-9] = "repository", [-10] = "repository", [-17] = "repository",
              [-18] = "repository", [-1] = "arguments"}
for _, status in ipairs{-5, -6, -7, -11, -12, -13, -14, -15, -16, -19} do KIND[status] = "source" end

local failedPackages = 0  -- counted by the downloadend handler below

local function fail(kind, format, ...)
  local line = string.format(format, ...)
  if failedPackages > 0 then
    line = line .. string.format("; %d package%s failed", failedPackages, failedPackages == 1 and "" or "s")
  end
  io.stderr:write(NAME, ": ", line, "\n")
  os.exit(EXIT[kind] or EXIT.other)
end

-- Every operation answers the status triple: result, status, message.
local function check(what, result, status, message)
  if not update.ok(status) then fail(KIND[status], "%s failed: %s (status %s)", what, message, status) end
  return result
end

local function usage(problem)
  if problem then io.stderr:write(NAME, ": ", problem, "\n") end
  io.stderr:write("usage: lua5.2 mirror.lua [--limit KIB/S] [--product ID]... REPOSITORY SOURCE [EXPORT-DIRECTORY]\n")
  os.exit(EXIT.arguments)
end

local positional, limit = {}, nil
local i = 1
while i <= #arg do
  if arg[i] == "--limit" then
    limit = tonumber(arg[i + 1]) or usage("--limit needs a number")
    i = i + 2
  elseif arg[i] == "--product" then
    -- Checked here, so that a mistyped identifier is one line rather than an error from inside.
    local ok, product = pcall(update.toproduct, arg[i + 1] or "")
    if not ok then usage(string.format("bad product identifier '%s': %s", arg[i + 1] or "",
                                       tostring(product):gsub("^.-:%d+: ", ""):gsub("^bad argument #%d+ to '[^']*' %((.*)%)$", "%1"))) end
    PRODUCTS[#PRODUCTS + 1] = arg[i + 1]
    i = i + 2
  else
    positional[#positional + 1] = arg[i]
    i = i + 1
  end
end
local repository, source, exportTo = positional[1], positional[2], positional[3]
if not repository or not source or #positional > 3 then usage() end
OPTIONS.maxbandwidth = limit

-- Wall-clock seconds to 10 ms from the kernel's uptime (os.time() counts whole seconds only).
local function now()
  local file = io.open("/proc/uptime")
  local seconds = file and file:read("*n")
  if file then file:close() end
  return seconds or os.time()
end

local function size(bytes)
  if bytes < 1024 then return string.format("%d B", bytes) end
  local units, unit = {"KiB", "MiB", "GiB", "TiB"}, 0
  repeat
    bytes, unit = bytes / 1024, unit + 1
  until bytes < 1024 or unit == #units
  return string.format("%.1f %s", bytes, units[unit])
end

local function rate(bytes, seconds)
  return seconds > 0 and size(bytes / seconds) .. "/s" or "-"
end

-- Prints rows of cells in aligned columns, after an indent. A row's last cell is never padded,
-- so it does not widen its column: a one-cell row serves as a heading.
local function columns(rows, indent)
  local widths = {}
  for _, row in ipairs(rows) do
    for c = 1, #row - 1 do widths[c] = math.max(widths[c] or 0, #row[c]) end
  end
  for _, row in ipairs(rows) do
    local cells = {}
    for c, cell in ipairs(row) do cells[c] = c < #row and cell .. string.rep(" ", widths[c] - #cell) or cell end
    print(indent .. table.concat(cells, "  "))
  end
end

-- A result table lists each product followed by its components. A product's name carries its
-- version (c1t100v10.0.0l1...), a component's does not.
local function isProduct(entity) return entity.name:match("^c%-?%d+t%-?%d+v") ~= nil end

-- Prints a result table; returns how many products and distinct components it names.
local function show(entities)
  local rows, products, components, seen = {}, 0, 0, {}
  for _, entity in ipairs(entities) do
    if isProduct(entity) then
      products = products + 1
      rows[#rows + 1] = {"product " .. entity.name}
    else
      rows[#rows + 1] = {"  " .. (entity.friendly or "-"), entity.version, entity.name}
      if not seen[entity.extract] then components, seen[entity.extract] = components + 1, true end
    end
  end
  columns(rows, "  ")
  return products, components
end

-- The download's progress, from the relay's events. Each handler returns nothing: a handler that
-- returns a true value, or raises an error, cancels the mirror.
local function progressDisplay()
  local live = os.execute("test -t 1") and os.getenv("TERM") ~= "dumb"
  local planned, done, packages, started, shown = 0, 0, 0, now(), false
  -- Fits in 80 columns, so that the live line never wraps.
  local function line(path, bytes)
    local percent = planned > 0 and math.floor(100 * bytes / planned) or 100
    local file = path:match("[^/]*$")
    if #file > 32 then file = "..." .. file:sub(-29) end
    return string.format("%-32s %9s of %-9s %3d%%  %s", file, size(bytes), size(planned), percent,
                         rate(bytes, now() - started))
  end
  local handlers = {
    download = function(event) planned, started = event.total, now() end,
    progress = function(event)
      if live then
        io.stdout:write("\r\27[K  ", line(event.information, done + event.finished))
        io.stdout:flush()
        shown = true
      end
    end,
    -- A package that failed ends with finished ~= total and "<path>: <reason>"; the rest go on.
    downloadend = function(event)
      if event.finished ~= event.total then
        failedPackages = failedPackages + 1
        if shown then io.stdout:write("\r\27[K") end
        print("  FAILED " .. event.information)
        return
      end
      done, packages = done + event.total, packages + 1
      if not live then print("  " .. line(event.information, done)) end
    end,
  }
  local function finish()
    if shown then io.stdout:write("\r\27[K") end
    local failed = failedPackages > 0 and string.format(", %d failed", failedPackages) or ""
    if packages == 0 then
      return failedPackages > 0 and "downloaded nothing" .. failed or "nothing to download: the repository is up to date"
    end
    local seconds = now() - started
    return string.format("downloaded %d package%s, %s in %.2f s (%s)%s", packages, packages == 1 and "" or "s",
                         size(done), seconds, rate(done, seconds), failed)
  end
  return handlers, finish
end

local function main()
  print("relay library " .. check("version", update.version()).string)

  -- 1. What the source offers: each component at its newest version.
  local offered = check("listing " .. source, update.list(repository, PRODUCTS, source))
  print("source " .. source .. ":")
  local products, components = show(offered)
  print(string.format("  %d components in %d products", components, products))

  -- 2. Mirror the patterns. With PRODUCTS = {} this takes every product the source lists (whereas
  --    everything(repository, {}, source) would mirror nothing).
  print("mirroring patterns into " .. repository)
  local handlers, finish = progressDisplay()
  for key, value in pairs(OPTIONS) do handlers[key] = value end
  local triple = {update.patterns(repository, PRODUCTS, source, handlers)}
  print(finish())
  check("mirroring patterns", table.unpack(triple, 1, 3))

  -- 3. What the repository holds, every version kept, newest first.
  local held = check("listing " .. repository, update.list(repository, PRODUCTS))
  print("repository " .. repository .. ":")
  products, components = show(held)
  print(string.format("  %d components (every version held) in %d products", components, products))

  -- 4. Export one component, found by its friendly name in the listing.
  if exportTo then
    local component = held[EXPORT] or fail("other", "the repository holds no %s", EXPORT)
    check("exporting " .. EXPORT, update.extract(repository, component, exportTo))
    print(string.format("exported %s %s into %s", EXPORT, component.version, exportTo))
  end

  -- 5. Clean up: server.ini is reset and the per-version archives go; the merged archives stay.
  --    The predicate only watches here: returning nothing lets each archive go.
  local removed = 0
  local cleaned, message = update.removeke(repository, function() removed = removed + 1 end)
  if not cleaned then fail("repository", "clean-up failed: %s", message) end
  print(string.format("clean-up: server.ini reset, %d per-version archive%s removed", removed,
                      removed == 1 and "" or "s"))

  -- 6. What is left in packages/.
  local quoted = "'" .. (repository .. "/packages"):gsub("'", "'\\''") .. "'"
  local listing = io.popen("find " .. quoted .. " -mindepth 1 -maxdepth 1 -printf '%s\\t%f\\n' | sort -t '\t' -k 2")
  local rows = {}
  for entry in listing:lines() do
    local bytes, name = entry:match("^(%d+)\t(.*)$")
    rows[#rows + 1] = {name, size(tonumber(bytes))}
  end
  listing:close()
  print("packages/ now holds:")
  columns(rows, "  ")
  print(string.format("%s: done: %d components in %d products held", NAME, components, products))
end

-- An argument the module refuses raises an error; report it as one line too.
local ok, problem = pcall(main)
if not ok then fail("arguments", "%s", (tostring(problem):gsub("\n.*", ""))) end
