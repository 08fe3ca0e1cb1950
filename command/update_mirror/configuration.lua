-- update-mirror's job: the configuration file run in a sandbox, every key and value checked, and
-- the command line's settings on top. A mistake is refused (arguments.refuse) with one line naming
-- the file, the key and the problem.
local arguments = require "update_mirror.arguments"
local refuse = arguments.refuse

local MODES = {everything = "everything", patterns = "patterns",
               ["patterns-except-kerno"] = "patternsExceptKerno", components = "components"}
local RELAY_OPTIONS = {maxbandwidth = "integer", buildpatch = "boolean", maxmerge = "integer",
                       diffcount = "integer", keepcount = "integer", httpslevel = "integer",
                       file_type_blacklist = "string", enable_check_file_type_blacklist = "boolean",
                       lowspeedlimit = "integer", lowspeedtime = "integer", catalogtimeout = "integer"}

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
  -- The relay takes 32-bit integers; a negative one means nothing an administrator would want.
  if kind == "integer" and (value < 0 or value > 2147483647) then
    refuse("%s must be between 0 and 2147483647%s", where, key == "maxbandwidth" and " (0: no limit)" or "")
  end
  return value
end

local function absolute(where, value)
  if text(where, value):sub(1, 1) ~= "/" then refuse("%s must be an absolute path", where) end
  return value
end

-- {[source address] = key or {keys...}} as lines of the relay's trusted-keys format, or a file of them.
local function trustedKeys(where, value)
  if type(value) == "string" then return {file = absolute(where, value)} end
  if type(value) ~= "table" then refuse("%s must be a table {[source address] = public key} or a file's path", where) end
  local lines = {}
  for address, keys in pairs(value) do
    local at = where .. "[" .. tostring(address) .. "]"
    if type(address) ~= "string" or not address:match("^%S+$") then refuse("%s: the key must be a source address", at) end
    for i, key in ipairs(checkList(at, keys, text)) do
      if key:match("%s") and not key:match("^%-%-%-%-%-BEGIN") then refuse("%s[%d] is not a public key", at, i) end
      -- A PEM text given whole goes as its base64 body, one word on the line.
      lines[#lines + 1] = address .. " " .. key:gsub("%-%-%-%-%-[^\n]*%-%-%-%-%-", ""):gsub("%s", "")
    end
  end
  table.sort(lines)
  return {text = table.concat(lines, "\n") .. "\n"}
end

local CHECKS = {
  repository = text,
  signing_key = absolute,
  trusted_keys = trustedKeys,
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

-- The configuration chunk's bounds: instructions, and memory above what the command held before.
-- A configuration is a few assignments; these only stop a mistake (or worse) from hanging or
-- swelling a nightly job.
local INSTRUCTIONS, MEMORY_KIB = 2000000, 16 * 1024

-- Runs the file with no globals, no libraries and no string methods (strings lose their
-- metatable while it runs: a pattern or string.rep in C could outlast any hook), counting every
-- instruction and the memory it holds. Returns the table of its assignments (or the one it returns).
local function loadConfiguration(path)
  local file, problem = io.open(path, "r")
  if not file then refuse("%s", problem) end
  local source = file:read("*a")
  file:close()
  local env = {}
  local chunk, syntax = load(source, "=" .. path, "t", env)
  if not chunk then refuse("%s", syntax) end
  local co, count = coroutine.create(chunk), 0
  collectgarbage()
  local ceiling = collectgarbage("count") + MEMORY_KIB
  debug.sethook(co, function()
    count = count + 1
    if count > INSTRUCTIONS then error(path .. ": takes too long to run", 0) end
    if collectgarbage("count") > ceiling then error(path .. ": takes too much memory to run", 0) end
  end, "", 1)
  local strings = debug.getmetatable("")
  debug.setmetatable("", nil)
  local ok, returned = coroutine.resume(co)
  debug.setmetatable("", strings)
  co = nil
  collectgarbage()
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

return {configure = function(given, module) update = module; return configure(given) end,
        isIdentifier = isIdentifier, MODES = MODES}
