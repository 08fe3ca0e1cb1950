-- patterns_except_kerno.lua: mirrors the pattern files and the rule package of every product,
-- except the kerno patterns (class 3, type 4, in any language), through an HTTP proxy.
--
--   lua5.2 patterns_except_kerno.lua REPOSITORY SOURCE-URL PROXY-HOST PROXY-PORT [USER PASSWORD]
--
-- The proxy serves http:// and https:// sources; a directory source is read directly. Set
-- type = 1 in the proxy table for a SOCKS5 proxy. The clean-up runs after the mirror, so
-- server.ini is reset and per-version archives are removed.
local update = require "update"

local repository, url, host, port, user, password = table.unpack(arg, 1, 6)
if not (repository and url and host and tonumber(port)) then
  io.stderr:write("usage: lua5.2 patterns_except_kerno.lua REPOSITORY SOURCE-URL PROXY-HOST PROXY-PORT [USER PASSWORD]\n")
  os.exit(2)
end

-- A list of source tables; the first whose catalog loads serves the whole run.
local sources = {
  {url = url, proxy = {type = 0, host = host, port = tonumber(port), user = user, password = password}},
}

local held, status, message = update.patternsExceptKerno(repository, {}, sources)
if not update.ok(status) then
  io.stderr:write(string.format("patterns_except_kerno: mirroring failed: %s (status %d)\n", message, status))
  os.exit(1)
end

local seen = {}
for _, entity in ipairs(held) do
  if not entity.name:match("^c%-?%d+t%-?%d+v") and not seen[entity.name] then
    seen[entity.name] = true
    print(string.format("%-8s %-8s %s", entity.friendly or "-", entity.version, entity.name))
  end
end
