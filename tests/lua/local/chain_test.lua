-- Vendor source -> central repository (served by nginx) -> branch repository, every level made by
-- examples/mirror.lua as shipped (clean-up on) under a cron guard's flock on the repository: the
-- branch holds every version the central one holds. Each run removes /dev/shm/sem.zovrelay.
local update = require "update"
local e = require "endtoend"

local build = assert(os.getenv("UPDATE_BUILD_DIR"))
local top = debug.getinfo(1, "S").source:match("^@(.*)/tests/lua/local/[^/]*$")

local function run(command)
  local pipe = io.popen(command .. " 2>&1; echo \"exit $?\"")
  local output = pipe:read("*a")
  pipe:close()
  return tonumber(output:match("exit (%d+)\n$")), output
end

local function mirror(repository, source)
  assert(os.execute("mkdir -p " .. e.quote(repository)))  -- flock(1) would make a missing path a file
  return run(string.format("flock -n %s env LUA_CPATH=%s %s %s %s %s", e.quote(repository), e.quote(build .. "/lua/?.so;;"), e.LUA,
                           e.quote(top .. "/examples/mirror.lua"), e.quote(repository), e.quote(source)))
end

-- nginx on a free port of 127.0.0.1, its configuration and logs under `directory`.
local function nginx(root, directory)
  assert(os.execute("mkdir -p " .. e.quote(directory .. "/tmp")))
  local _, free = run([[python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])']])
  local port = assert(free:match("^(%d+)\n"))
  e.write(directory .. "/nginx.conf", ([[
daemon off; worker_processes 1; user root; pid DIR/nginx.pid; error_log DIR/error.log;
events { worker_connections 64; }
http { access_log DIR/access.log; client_body_temp_path DIR/tmp; proxy_temp_path DIR/tmp; fastcgi_temp_path DIR/tmp;
       uwsgi_temp_path DIR/tmp; scgi_temp_path DIR/tmp; server { listen 127.0.0.1:PORT; root ROOT; } }
]]):gsub("DIR", directory):gsub("PORT", port):gsub("ROOT", root))
  local quoted = e.quote(directory)
  local pid = assert(tonumber(select(2, run("/usr/sbin/nginx -p " .. quoted .. " -c " .. quoted .. "/nginx.conf >/dev/null 2>&1 & echo $!")):match("%d+")))
  local url, stop = "http://127.0.0.1:" .. port, function() os.execute("kill " .. pid .. " 2>/dev/null") end
  for _ = 1, 200 do
    if run("curl -sf -o /dev/null " .. url .. "/source.ini") == 0 then return url, stop end
    os.execute("sleep 0.05")
  end
  stop()
  error("nginx did not start: " .. (e.read(directory .. "/error.log") or ""))
end

local function held(repository)
  local versions = {}
  for _, entity in ipairs(assert(update.list(repository, {}))) do versions[#versions + 1] = entity.name .. " " .. (entity.version or "") end
  return versions
end

describe("a chain of repositories", function()
  local work, stop
  lazy_setup(function() work = e.tempdir() end)
  lazy_teardown(function()
    if stop then stop() end
    e.rmtree(work)
  end)

  it("passes every version from the vendor through nginx to a branch", function()
    local vendor, central, branch = work .. "/vendor", work .. "/central", work .. "/branch"
    e.makeSource(vendor, {products = 2, components = 6, size = 5000})
    local status, output = mirror(central, vendor)
    assert.are.equal(0, status, output)
    assert.are.equal(e.INDEX, e.read(central .. "/server.ini"), "the clean-up ran")
    local url
    url, stop = nginx(central, work .. "/nginx")
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(output:match("downloaded 5 packages"), output)
    assert.are.same(held(central), held(branch))
    assert.are.equal(5, #e.archives(branch, "merged"))
    -- A second night: nothing to fetch, and the guard still passes while nothing runs.
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(output:match("nothing to download"), output)
    assert.is_truthy(e.read(work .. "/nginx/access.log"):match("\" 206 "), "versions were read as byte ranges")
  end)
end)
