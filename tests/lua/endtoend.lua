-- For the suites against the local relay (lua/local/), beside helpers: sample sources, a loopback
-- HTTP server that a suite starts and stops, and what a repository directory holds.
local h = require "helpers"

local e = setmetatable({}, {__index = h})

local build = assert(os.getenv("UPDATE_BUILD_DIR"), "UPDATE_BUILD_DIR is not set")

e.INDEX = "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n"  -- server.ini after a clean-up

function e.quote(text) return "'" .. text:gsub("'", "'\\''") .. "'" end

-- The interpreter for scripts a suite runs as processes of their own: a sanitized build's update.so
-- loads only where its runtimes come first, so they are preloaded there too.
local preload = os.getenv("UPDATE_PRELOAD")
e.LUA = preload and "env LD_PRELOAD=" .. e.quote(preload) .. " lua5.2" or "lua5.2"

-- Writes a sample source into directory; options are makesource's (products, components, size...).
function e.makeSource(directory, options)
  local command = {e.quote(build .. "/tools/makesource")}
  for key, value in pairs(options or {}) do command[#command + 1] = "--" .. key .. " " .. value end
  command[#command + 1] = e.quote(directory) .. " >/dev/null"
  assert(os.execute(table.concat(command, " ")))
end

-- Serves directory over HTTP on a free port of 127.0.0.1 (tools/serve.py), logging into work
-- (over HTTPS with certificate, a PEM file with the key); returns the URL and a function that stops it.
function e.serve(directory, work, certificate)
  local serve = debug.getinfo(1, "S").source:match("^@(.*)/tests/lua/[^/]*$") .. "/tools/serve.py"
  local pipe = io.popen(string.format("python3 %s %s %s %s >%s 2>&1 & echo $!", e.quote(serve), e.quote(directory),
                                      e.quote(work .. "/http.port"), certificate and e.quote(certificate) or "",
                                      e.quote(work .. "/http.log")))
  local pid = assert(pipe:read("*n"))
  pipe:close()
  local function stop() os.execute("kill " .. pid .. " 2>/dev/null") end
  for _ = 1, 600 do
    local port = h.read(work .. "/http.port")
    if port then
      os.remove(work .. "/http.port")  -- the next server started with this work directory writes its own
      return (certificate and "https" or "http") .. "://127.0.0.1:" .. port:match("%d+"), stop
    end
    os.execute("sleep 0.05")
  end
  stop()
  error("the HTTP server did not start: " .. (h.read(work .. "/http.log") or ""))
end

-- The entries of a directory (dot files included), sorted; {} when it does not exist.
function e.names(directory)
  local pipe = io.popen("ls -A " .. e.quote(directory) .. " 2>/dev/null")
  local names = {}
  for name in pipe:lines() do names[#names + 1] = name end
  pipe:close()
  table.sort(names)
  return names
end

-- The identities whose archives of the given kind ("merged", or "version" for per-version
-- archives) a repository holds, sorted, with repetitions.
function e.archives(repository, kind)
  local found = {}
  for _, name in ipairs(e.names(repository .. "/packages")) do
    local identity, rest = name:match("^(c[^_]*)_(.*)%.zip$")
    if identity and (rest == "merged") == (kind == "merged") then found[#found + 1] = identity end
  end
  return found
end

-- The distinct component identities of a result table, sorted (products carry a version in
-- their name, components do not).
function e.components(result)
  local found, seen = {}, {}
  for _, entity in ipairs(result) do
    if not entity.name:match("^c%-?%d+t%-?%d+v") and not seen[entity.name] then
      seen[entity.name] = true
      found[#found + 1] = entity.name
    end
  end
  table.sort(found)
  return found
end

return e
