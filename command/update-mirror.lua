#!/usr/bin/env lua5.2
-- update-mirror: runs one mirror job from a configuration file, for cron and systemd timers.
-- The help text, the manual page (command/manpage.lua renders it at build time) and the argument
-- parser all read the DOC table below, so the three cannot drift apart. Loaded as a chunk rather
-- than run as a script (no global `arg`), this file returns DOC and does nothing else.

-- Where update.so lies relative to this script once installed; the install rules fill it in.
local LIBDIR = nil

local DOC = {
  name = "update-mirror",
  summary = "mirror update components into a local repository, as one configured job",
  synopsis = {
    "update-mirror [--config FILE] [OPTION...]",
    "update-mirror [--config FILE] --dry-run [--json]",
    "update-mirror [--config FILE] --list [--json]",
    "update-mirror [--config FILE] --export COMPONENT DIRECTORY",
  },
  description = {
    "Mirrors the update components a configuration file names (scan engines, pattern files, rule " ..
    "packages) from the first reachable update source into a repository directory, then cleans " ..
    "the repository up. Command-line options override the file. On a terminal the download is one " ..
    "line that updates in place; otherwise each package is a line, as cron mail wants it. A " ..
    "failure ends with one line on standard error naming what failed, and an exit status that " ..
    "tells source, repository and configuration problems apart.",
    "Two runs on one repository never overlap: the second answers \"repository is busy\" and " ..
    "exits 4 without touching anything, so no lock file is needed.",
  },
  -- flag, argument, what it sets; `key` names the setting it overrides, `many` repeats.
  options = {
    {flag = "--config", short = "-c", arg = "FILE", text = "read the job from FILE (see CONFIGURATION)"},
    {flag = "--repository", arg = "DIR", key = "repository", text = "the repository directory"},
    {flag = "--source", arg = "URL", key = "sources", many = true,
     text = "a source (directory, file:// or http(s):// URL), tried in the order given; replaces the file's sources"},
    {flag = "--proxy", arg = "[socks5://][USER:PASSWORD@]HOST:PORT",
     text = "the proxy for the sources given with --source (HTTP unless socks5://)"},
    {flag = "--product", arg = "ID", key = "products", many = true,
     text = "a product identifier (c1t100); replaces the file's products"},
    {flag = "--mirror", arg = "WHAT", key = "mirror",
     text = "everything, patterns, patterns-except-kerno or components"},
    {flag = "--component", arg = "ID", key = "components", many = true,
     text = "a kind of component to mirror with --mirror components (c2t1207960066, c3t4)"},
    {flag = "--limit", arg = "KIB/S", text = "bandwidth limit of each transfer (the option maxbandwidth)"},
    {flag = "--option", arg = "KEY=VALUE", text = "a relay option (see CONFIGURATION), as in the file's options"},
    {flag = "--cleanup", text = "clean the repository up after the mirror (the default)"},
    {flag = "--no-cleanup", text = "leave server.ini and the per-version archives as the mirror left them"},
    {flag = "--dry-run", text = "list what a run would download and remove, with sizes; change nothing"},
    {flag = "--json", text = "print a summary of the run (or the listing, or the plan) as JSON on standard output"},
    {flag = "--list", text = "list what the repository holds"},
    {flag = "--export", arg = "COMPONENT DIRECTORY",
     text = "write a held component's package (identifier or friendly name, such as kerno_english) into DIRECTORY"},
    {flag = "--help", short = "-h", text = "show this help"},
    {flag = "--version", text = "show the versions of the command and of the relay library"},
  },
  sections = {
    {"CONFIGURATION",
     "The file is a Lua table: assignments of the keys below (or a chunk that returns a table). " ..
     "It runs with no globals and no libraries; every key and value is checked before anything " ..
     "runs, and a mistake is one line naming the file, the key and the problem.",
     "repository = \"/srv/update\"  -- required\n" ..
     "sources = {                  -- required for a mirror; tried in order\n" ..
     "  {url = \"http://updates.example.net/mirror\",\n" ..
     "   proxy = {host = \"proxy.example.net\", port = 3128, user = \"u\", password = \"p\"}},\n" ..
     "  \"/srv/fallback-source\",\n" ..
     "}\n" ..
     "products = {}                -- identifiers; {} every product the source lists\n" ..
     "mirror = \"patterns\"          -- everything | patterns | patterns-except-kerno | components\n" ..
     "components = {\"c2t1207960066\", \"c22t2213\"}  -- with mirror = \"components\"\n" ..
     "options = {maxbandwidth = 10240, httpslevel = 2}\n" ..
     "cleanup = {keep = {\"c2t1207960066\"}}  -- or true (the default), or false",
     "A proxy's type is \"http\" (the default) or \"socks5\". mirror = \"everything\" needs at " ..
     "least one product. The relay options are maxbandwidth (KiB/s), buildpatch, maxmerge, " ..
     "diffcount, keepcount, httpslevel (0, 1 or 2), file_type_blacklist and " ..
     "enable_check_file_type_blacklist. The clean-up resets server.ini and deletes the per-version " ..
     "archives packages/<identity>_<version>.zip, except those of the kinds of component that keep " ..
     "names; it runs after the mirror unless the mirror ended with a repository problem."},
    {"OUTPUT",
     "--json prints one object: status and message (the relay's), exit (the exit status), " ..
     "repository, source, seconds, bytes, downloaded (path, bytes), skipped (components already " ..
     "held: name, version), failed (path, reason), removed (paths). A dry run prints the same keys " ..
     "with \"dry_run\": true, what it would download under downloaded and what the clean-up would " ..
     "remove under removed."},
    -- A list of {term, text} pairs is a tagged list.
    {"EXIT STATUS", {
      {"0", "success"},
      {"1", "any other failure: cancelled, out of memory, relay library not started"},
      {"2", "bad configuration or arguments (also the relay's \"invalid argument\", -1)"},
      {"3", "a source problem: unreachable, not found, integrity check failed, invalid catalog, HTTP " ..
            "error, host not resolved, connection failed, certificate refused, proxy refused, " ..
            "unsupported address (statuses -5, -6, -7, -11 to -16, -19)"},
      {"4", "a repository problem: not accessible, busy, i/o error, no space, permission denied " ..
            "(statuses -3, -9, -10, -17, -18)"},
    }},
    {"EXAMPLES",
     "update-mirror -c /etc/update-mirror/mirror.conf\n" ..
     "update-mirror -c /etc/update-mirror/mirror.conf --dry-run\n" ..
     "update-mirror --repository /srv/update --source http://updates.example.net/mirror --json\n" ..
     "update-mirror --repository /srv/update --export kerno_english /srv/export"},
  },
}
if not arg then return DOC end

local EXIT = {ok = 0, failure = 1, usage = 2, source = 3, repository = 4}
local EXIT_OF_STATUS = {[-1] = 2, [-3] = 4, [-9] = 4, [-10] = 4, [-17] = 4, [-18] = 4}
for _, status in ipairs{-5, -6, -7, -11, -12, -13, -14, -15, -16, -19} do EXIT_OF_STATUS[status] = EXIT.source end

local NAME = "update-mirror"
local MODES = {everything = "everything", patterns = "patterns",
               ["patterns-except-kerno"] = "patternsExceptKerno", components = "components"}
local RELAY_OPTIONS = {maxbandwidth = "integer", buildpatch = "boolean", maxmerge = "integer",
                       diffcount = "integer", keepcount = "integer", httpslevel = "integer",
                       file_type_blacklist = "string", enable_check_file_type_blacklist = "boolean"}

local function fail(code, format, ...)
  io.stdout:flush()
  io.stderr:write(NAME, ": ", string.format(format, ...), "\n")
  os.exit(code)
end

-- A problem found while reading arguments or the configuration: raised as a table so that the
-- whole check stops at the first one, and reported as one line with exit status 2.
local function refuse(format, ...) error({problem = string.format(format, ...)}, 0) end

------------------------------------------------------------------------------ help

-- Words of text in lines of at most width columns, each after indent.
local function wrap(text, width, indent)
  local lines, line = {}, nil
  for word in text:gmatch("%S+") do
    if line and #line + 1 + #word > width then lines[#lines + 1], line = line, nil end
    line = line and line .. " " .. word or indent .. word
  end
  lines[#lines + 1] = line
  return table.concat(lines, "\n")
end

local function helpText()
  local lines = {"usage: " .. DOC.synopsis[1], "       " .. table.concat(DOC.synopsis, "\n       ", 2), "",
                 DOC.summary .. ".", "", "options:"}
  for _, option in ipairs(DOC.options) do
    local head = "  " .. (option.short and option.short .. ", " or "    ") .. option.flag .. (option.arg and " " .. option.arg or "")
    local body = wrap(option.text, 79, string.rep(" ", 29))
    lines[#lines + 1] = #head < 28 and head .. body:sub(#head + 1) or head .. "\n" .. body
  end
  for _, section in ipairs(DOC.sections) do
    if section[1] == "EXIT STATUS" then
      lines[#lines + 1] = "\nexit status:"
      for _, entry in ipairs(section[2]) do
        lines[#lines + 1] = "  " .. entry[1] .. wrap(entry[2], 79, "     "):sub(4)
      end
    end
  end
  lines[#lines + 1] = "\nThe manual page update-mirror(1) describes the configuration file."
  return table.concat(lines, "\n")
end

------------------------------------------------------------------------------ arguments

local FLAGS = {}
for _, option in ipairs(DOC.options) do
  FLAGS[option.flag] = option
  if option.short then FLAGS[option.short] = option end
end

local function parseArguments(args)
  local given = {overrides = {}}
  local i = 1
  local function value(option)
    local text = args[i + 1]
    if text == nil then refuse("%s needs %s", option.flag, option.arg) end
    i = i + 1
    return text
  end
  while i <= #args do
    local word = args[i]
    local flag, inline = word:match("^(%-%-[%w-]+)=(.*)$")
    if inline then args[i] = flag; table.insert(args, i + 1, inline); word = flag end
    local option = FLAGS[word] or refuse("unknown option %s (see --help)", word)
    if option.key then
      local text = value(option)
      if option.many then
        given.overrides[option.key] = given.overrides[option.key] or {}
        table.insert(given.overrides[option.key], text)
      else
        given.overrides[option.key] = text
      end
    elseif option.flag == "--config" then given.config = value(option)
    elseif option.flag == "--proxy" then given.proxy = value(option)
    elseif option.flag == "--limit" then
      given.options = given.options or {}
      given.options[#given.options + 1] = {"maxbandwidth", value(option), "--limit"}
    elseif option.flag == "--option" then
      local text = value(option)
      local key, v = text:match("^([%w_]+)=(.*)$")
      if not key then refuse("--option needs KEY=VALUE, not %q", text) end
      given.options = given.options or {}
      given.options[#given.options + 1] = {key, v}
    elseif option.flag == "--export" then
      given.export = {value(option), value(option)}
    elseif option.flag == "--cleanup" or option.flag == "--no-cleanup" then
      given.overrides.cleanup = option.flag == "--cleanup"
    else
      given[option.flag:sub(3):gsub("-", "_")] = true
    end
    i = i + 1
  end
  local actions = (given.dry_run and 1 or 0) + (given.list and 1 or 0) + (given.export and 1 or 0)
  if actions > 1 then refuse("--dry-run, --list and --export exclude each other") end
  return given
end

------------------------------------------------------------------------------ configuration

local update  -- the module, loaded once the arguments are known

-- Keys of the configuration and the check of each value; `where` names the key for messages.
local function isIdentifier(text)
  return type(text) == "string" and pcall(update.tocomponent, text)
end

local function checkList(where, value, each)
  if type(value) == "string" then value = {value} end
  if type(value) ~= "table" then refuse("%s must be a list", where) end
  for key in pairs(value) do
    if type(key) ~= "number" or key < 1 or key > #value or key % 1 ~= 0 then
      refuse("%s must be a list, found the key %s", where, tostring(key))
    end
  end
  local list = {}
  for i, item in ipairs(value) do list[i] = each(where .. "[" .. i .. "]", item) end
  return list
end

local function identifier(where, value)
  if not isIdentifier(value) then
    local _, problem = pcall(update.tocomponent, value)
    refuse("%s: %s is not an identifier (%s)", where, type(value) == "string" and string.format("%q", value) or type(value),
           tostring(problem):match("%((.*)%)") or tostring(problem))
  end
  return value
end

local function checkKeys(where, value, allowed)
  for key in pairs(value) do
    if not allowed[key] then refuse("%s: unknown key %s", where, tostring(key)) end
  end
end

local function text(where, value)
  if type(value) ~= "string" or value == "" then refuse("%s must be a non-empty string", where) end
  return value
end

local function proxy(where, value)
  if type(value) ~= "table" then refuse("%s must be a table", where) end
  checkKeys(where, value, {type = true, host = true, port = true, user = true, password = true})
  local kind = value.type or "http"
  if kind ~= "http" and kind ~= "socks5" then refuse("%s.type must be \"http\" or \"socks5\"", where) end
  local port = value.port
  if type(port) ~= "number" or port % 1 ~= 0 or port < 1 or port > 65535 then
    refuse("%s.port must be a port number (1 to 65535)", where)
  end
  for _, key in ipairs{"user", "password"} do
    if value[key] ~= nil and type(value[key]) ~= "string" then refuse("%s.%s must be a string", where, key) end
  end
  return {type = kind == "socks5" and 1 or 0, host = text(where .. ".host", value.host), port = port,
          user = value.user, password = value.password}
end

local function source(where, value)
  if type(value) == "string" then value = {url = value} end
  if type(value) ~= "table" then refuse("%s must be an address or a table", where) end
  checkKeys(where, value, {url = true, proxy = true})
  return {url = text(where .. ".url", value.url), proxy = value.proxy ~= nil and proxy(where .. ".proxy", value.proxy) or nil}
end

local function optionValue(where, key, value)
  local kind = RELAY_OPTIONS[key] or refuse("%s: unknown relay option", where)
  if type(value) == "string" then  -- from the command line
    if kind == "integer" then value = tonumber(value) or value
    elseif kind == "boolean" then
      if value == "true" or value == "yes" or value == "1" then value = true
      elseif value == "false" or value == "no" or value == "0" then value = false end
    end
  end
  if kind == "integer" and (type(value) ~= "number" or value % 1 ~= 0) then refuse("%s must be an integer", where) end
  if kind == "boolean" and type(value) ~= "boolean" then refuse("%s must be true or false", where) end
  if kind == "string" and type(value) ~= "string" then refuse("%s must be a string", where) end
  if key == "httpslevel" and (value < 0 or value > 2) then refuse("%s must be 0, 1 or 2", where) end
  if key ~= "maxbandwidth" and kind == "integer" and value < 0 then refuse("%s must not be negative", where) end
  return value
end

local CHECKS = {
  repository = text,
  sources = function(where, value) return checkList(where, value, source) end,
  products = function(where, value) return checkList(where, value, identifier) end,
  components = function(where, value) return checkList(where, value, identifier) end,
  mirror = function(where, value)
    if not MODES[value] then refuse("%s must be everything, patterns, patterns-except-kerno or components", where) end
    return value
  end,
  options = function(where, value)
    if type(value) ~= "table" then refuse("%s must be a table", where) end
    local options = {}
    for key, v in pairs(value) do
      options[key] = optionValue(where .. "." .. tostring(key), key, v)
    end
    return options
  end,
  cleanup = function(where, value)
    if type(value) == "boolean" then return {enabled = value, keep = {}} end
    if type(value) ~= "table" then refuse("%s must be true, false or a table", where) end
    checkKeys(where, value, {enabled = true, keep = true})
    if value.enabled ~= nil and type(value.enabled) ~= "boolean" then refuse("%s.enabled must be true or false", where) end
    return {enabled = value.enabled ~= false, keep = checkList(where .. ".keep", value.keep or {}, identifier)}
  end,
}

-- Runs the file with no globals and no libraries, and a budget of instructions so that a loop
-- in it cannot hang a nightly job. Returns the table of its assignments (or the table it returns).
local function loadConfiguration(path)
  local file, problem = io.open(path, "r")
  if not file then refuse("%s", problem) end
  local source = file:read("*a")
  file:close()
  local env = {}
  local chunk, syntax = load(source, "=" .. path, "t", env)
  if not chunk then refuse("%s", syntax) end
  local co = coroutine.create(chunk)
  debug.sethook(co, function() error(path .. ": takes too long to run", 0) end, "", 10000000)
  local ok, returned = coroutine.resume(co)
  if not ok then refuse("%s", tostring(returned)) end
  if returned ~= nil and type(returned) ~= "table" then refuse("%s: returns a %s, not a table", path, type(returned)) end
  return returned or env
end

-- The job: the file's settings, checked, with the command line's on top.
local function configure(given)
  local settings, where = {}, given.config or "command line"
  local function check(origin, key, value)
    local checkOne = CHECKS[key] or refuse("%s: unknown key %s", origin, tostring(key))
    local ok, result = pcall(checkOne, key, value)
    if not ok then
      if type(result) == "table" then refuse("%s: %s", origin, result.problem) end
      error(result, 0)
    end
    return result
  end
  if given.config then
    local loaded = loadConfiguration(given.config)
    for key, value in pairs(loaded) do
      if type(key) ~= "string" then refuse("%s: unknown key %s", where, tostring(key)) end
      settings[key] = check(given.config, key, value)
    end
  end
  for key, value in pairs(given.overrides) do
    if key == "sources" and given.proxy then
      local scheme, user, password, host, port = given.proxy:match("^(%a[%w]*://)(.-):(.-)@(.+):(%d+)$")
      if not scheme then scheme, host, port = given.proxy:match("^(%a[%w]*://)(.+):(%d+)$") end
      if not host then user, password, host, port = given.proxy:match("^(.-):(.-)@(.+):(%d+)$") end
      if not host then host, port = given.proxy:match("^(.+):(%d+)$") end
      if not host or (scheme and scheme ~= "http://" and scheme ~= "socks5://") then
        refuse("command line: --proxy %s is not [socks5://][USER:PASSWORD@]HOST:PORT", given.proxy)
      end
      local table_ = {}
      for i, url in ipairs(value) do
        table_[i] = {url = url, proxy = {type = scheme == "socks5://" and "socks5" or "http", host = host,
                                         port = tonumber(port), user = user, password = password}}
      end
      value = table_
    end
    settings[key] = check("command line", key, value)
  end
  if given.proxy and not given.overrides.sources then refuse("command line: --proxy applies to --source, and none is given") end
  settings.options = settings.options or {}
  for _, pair in ipairs(given.options or {}) do
    local ok, value = pcall(optionValue, pair[3] or "--option " .. pair[1], pair[1], pair[2])
    if not ok then refuse("command line: %s", type(value) == "table" and value.problem or tostring(value)) end
    settings.options[pair[1]] = value
  end
  settings.products = settings.products or {}
  settings.mirror = settings.mirror or (settings.components and "components" or "patterns")
  settings.cleanup = settings.cleanup or {enabled = true, keep = {}}
  if not settings.repository then refuse("%s: repository is missing", where) end
  local mirroring = not (given.list or given.export)
  if mirroring and not settings.sources then refuse("%s: sources is missing", where) end
  if mirroring and settings.mirror == "everything" and #settings.products == 0 then
    refuse("%s: products: mirror = \"everything\" needs at least one product", where)
  end
  if mirroring and settings.mirror == "components" and #(settings.components or {}) == 0 then
    refuse("%s: components: mirror = \"components\" needs at least one component", where)
  end
  return settings
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

local function quote(text) return "'" .. text:gsub("'", "'\\''") .. "'" end

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

-- With --json, stdout carries only the JSON document: the human lines go to stderr.
local out = io.stdout
local function say(format, ...) out:write(string.format(format, ...), "\n") end

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

local cjson

local function summaryOf(settings, status, message)
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

-- The download's progress from the relay's events. Every handler returns nothing: a true answer
-- would cancel the mirror.
local function progress(summary)
  local live = os.execute("test -t 1") and os.getenv("TERM") ~= "dumb" and out == io.stdout
  local planned, done, started, shown = 0, 0, now(), false
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
      if live then
        io.stdout:write("\r\27[K  ", line(event.information, done + event.finished))
        io.stdout:flush()
        shown = true
      end
    end,
    downloadend = function(event)
      if event.finished ~= event.total then
        local path, reason = event.information:match("^(.-): (.*)$")
        table.insert(summary.failed, {path = path or event.information, reason = reason or "failed"})
        if shown then io.stdout:write("\r\27[K"); shown = false end
        say("  failed: %s", event.information)
        return
      end
      done = done + event.total
      table.insert(summary.downloaded, {path = event.information, bytes = event.total})
      if not live then say("  %s", line(event.information, done)) end
    end,
  }
  local function stop()
    if shown then io.stdout:write("\r\27[K") end
    summary.bytes = done
  end
  return handlers, stop
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
  if not update.ok(status) then summary.reason = "mirroring failed: " .. message end
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

local function export(_, settings, component, directory)
  existing(settings)
  local held, status, message = update.list(settings.repository, {})
  if not update.ok(status) then fail(EXIT_OF_STATUS[status] or EXIT.failure, "listing %s failed: %s (status %d)", settings.repository, message, status) end
  local wanted = held and held[component]
  if not wanted then
    if not isIdentifier(component) then
      fail(EXIT.usage, "--export: %s is neither a friendly name the repository holds nor an identifier", component)
    end
    wanted = component
  end
  local ok, exported, why = update.extract(settings.repository, wanted, directory)
  if not ok then fail(EXIT_OF_STATUS[exported] or EXIT.failure, "exporting %s failed: %s (status %d)", component, why, exported) end
  say("exported %s into %s", type(wanted) == "table" and (component .. " " .. wanted.version) or component, directory)
  os.exit(EXIT.ok)
end

------------------------------------------------------------------------------ main

local function main(args)
  local ok, given = pcall(parseArguments, args)
  if not ok then
    if type(given) == "table" then fail(EXIT.usage, "%s", given.problem) end
    error(given, 0)
  end
  if given.help then print(helpText()); os.exit(EXIT.ok) end
  if LIBDIR then
    local here = (arg[0]:match("^(.*)/[^/]*$") or ".")
    package.cpath = (LIBDIR:sub(1, 1) == "/" and LIBDIR or here .. "/" .. LIBDIR) .. "/?.so;" .. package.cpath
  end
  local loaded, module = pcall(require, "update")
  if not loaded then fail(EXIT.failure, "cannot load the update module: %s", tostring(module):match("[^\n]*")) end
  update = module
  if given.version then
    local version = update.version()
    print(NAME .. " 1.0.0, relay library " .. (version and version.string or "not started"))
    os.exit(EXIT.ok)
  end
  if given.json then
    local found, library = pcall(require, "cjson")
    if not found then fail(EXIT.failure, "--json needs lua-cjson: %s", tostring(library):match("[^\n]*")) end
    cjson, out = library, io.stderr
  end
  local checked, settings = pcall(configure, given)
  if not checked then
    if type(settings) == "table" then fail(EXIT.usage, "%s", settings.problem) end
    error(settings, 0)
  end
  io.stdout:setvbuf("line")
  if given.list then return list(given, settings) end
  if given.export then return export(given, settings, given.export[1], given.export[2]) end
  if given.dry_run then return dryRun(given, settings) end
  return mirror(given, settings)
end

local ok, problem = pcall(main, {table.unpack(arg)})
if not ok then fail(EXIT.failure, "%s", tostring(problem):gsub("\n.*", "")) end
