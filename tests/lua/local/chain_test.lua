-- Vendor source -> central repository (served by nginx with examples/nginx-serve.conf) -> branch
-- repository, every level made by examples/mirror.lua as shipped (clean-up on) under a cron
-- guard's flock on the repository: the branch holds every version the central one holds, package
-- bytes are published under names that never change, catalogs are revalidated. Each run removes
-- /dev/shm/sem.zovrelay.
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

-- `key`: the repository signs its catalogs with this private key.
local function mirror(repository, source, key)
  assert(os.execute("mkdir -p " .. e.quote(repository)))  -- flock(1) would make a missing path a file
  return run(string.format("flock -n %s env LUA_CPATH=%s UPDATE_SIGNING_KEY=%s %s %s %s %s", e.quote(repository),
                           e.quote(build .. "/lua/?.so;;"), e.quote(key or ""), e.LUA,
                           e.quote(top .. "/examples/mirror.lua"), e.quote(repository), e.quote(source)))
end

-- nginx on a free port of 127.0.0.1 with the shipped server block, its configuration and logs
-- under `directory`.
local function nginx(root, directory)
  assert(os.execute("mkdir -p " .. e.quote(directory .. "/tmp")))
  local _, free = run([[python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])']])
  local port = assert(free:match("^(%d+)\n"))
  local block = e.read(top .. "/examples/nginx-serve.conf"):gsub("@LISTEN@", "127.0.0.1:" .. port):gsub("@ROOT@", root)
  e.write(directory .. "/nginx.conf", ([[
daemon off; worker_processes 1; user root; pid DIR/nginx.pid; error_log DIR/error.log;
events { worker_connections 64; }
http { access_log DIR/access.log; client_body_temp_path DIR/tmp; proxy_temp_path DIR/tmp; fastcgi_temp_path DIR/tmp;
       uwsgi_temp_path DIR/tmp; scgi_temp_path DIR/tmp; BLOCK }
]]):gsub("DIR", directory):gsub("BLOCK", function() return block end))
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
  local work, stop, stopSigned
  lazy_setup(function() work = e.tempdir() end)
  lazy_teardown(function()
    if stop then stop() end
    if stopSigned then stopSigned() end
    e.rmtree(work)
  end)

  -- The status and headers of a GET, lower-cased.
  local function get(url)
    local _, out = run("curl -s -D - -o /dev/null " .. e.quote(url))
    return out:lower()
  end

  -- The catalog's component lines: path, size, SHA-256 and offset by identity and version.
  local function ranges(text)
    local found = {}
    for identity, version, path, size, sha, offset in text:gmatch("\n(c%S+) (%S+) (%S+) (%d+) (%x+) (%d+)") do
      found[#found + 1] = {path = path, size = tonumber(size), sha = sha, offset = tonumber(offset)}
    end
    return found
  end

  it("passes every version from the vendor through nginx to a branch", function()
    local vendor, central, branch = work .. "/vendor", work .. "/central", work .. "/branch"
    e.makeSource(vendor, {products = 2, components = 6, size = 5000})
    local status, output = mirror(central, vendor)
    assert.are.equal(0, status, output)
    assert.are.equal(e.INDEX, e.read(central .. "/server.ini"), "the clean-up ran")
    e.write(central .. "/packages/.c3t4l1p-1r-1o-1_1.0.0.0.part", "half")
    -- Catalogs fetched within the second they changed are asked for whole the next time: aged.
    assert(os.execute("touch -d '1 minute ago' " .. e.quote(central .. "/source.ini")))
    local url
    url, stop = nginx(central, work .. "/nginx")
    local published = ranges(e.read(central .. "/source.ini"))[1].path
    assert.is_truthy(published:match("^packages/c.*_merged%.zip%.%x+$"), published)
    for _, case in ipairs{  -- path, status, a header it must carry
      {"/source.ini", "200", "cache%-control: no%-cache"}, {"/source.ini", "200", "etag: "},
      {"/server.ini", "200", "cache%-control: no%-cache"},
      {"/" .. published, "200", "cache%-control: public, max%-age=%d+, immutable"},
      {"/.held", "404"}, {"/.verified", "404"}, {"/.lock", "404"}, {"/report.json", "404"},
      {"/packages/.c3t4l1p-1r-1o-1_1.0.0.0.part", "404"}, {"/packages/", "40[34]"},
    } do
      local answer = get(url .. case[1])
      assert.is_truthy(answer:match("^http/1%.1 " .. case[2]), case[1] .. ": " .. answer)
      if case[3] then assert.is_truthy(answer:match(case[3]), case[1] .. ": " .. answer) end
    end
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(output:match("downloaded 5 packages"), output)
    assert.are.same(held(central), held(branch))
    assert.are.equal(5, #e.archives(branch, "merged"))
    -- A second night: the kept catalog is revalidated (304), nothing else is asked for; the guard
    -- still passes while nothing runs.
    local log = work .. "/nginx/access.log"
    local before = #e.read(log)
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(output:match("nothing to download"), output)
    local night = e.read(log):sub(before + 1)
    assert.is_truthy(night:match("GET /source%.ini HTTP/1%.1\" 304 "), night)
    assert.is_nil(night:match("\" 200 ") or night:match("\" 206 "), night)
    assert.is_truthy(e.read(log):match("\" 206 "), "versions were read as byte ranges")
    -- A kept catalog damaged where it lies is never used: a night the seal does not answer (an
    -- archive touched) reads it, finds it is not as it was kept and fetches the catalog whole.
    for _, name in ipairs(e.names(branch)) do
      if name:match("^%.catalog%-") then
        local head, text = e.read(branch .. "/" .. name):match("^(.-\nsha256 %x+\n)(.*)$")
        e.write(branch .. "/" .. name, head .. text:gsub(("%x"):rep(64), ("0"):rep(64), 1))
      end
    end
    assert(os.execute("touch " .. e.quote(branch .. "/packages/" .. e.names(branch .. "/packages")[1])))
    before = #e.read(log)
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(e.read(log):sub(before + 1):match("GET /source%.ini HTTP/1%.1\" 200 "))
    assert.are.same(held(central), held(branch))
    -- A new release: the catalog read before it still names bytes that match it, through any cache.
    local old = ranges(e.read(central .. "/source.ini"))
    e.makeSource(vendor, {products = 2, components = 6, size = 5000, seed = 2})
    status, output = mirror(central, vendor)
    assert.are.equal(0, status, output)
    assert.are_not.same(old, ranges(e.read(central .. "/source.ini")))
    for _, entry in ipairs(old) do
      local _, sum = run(string.format("curl -sf -r %d-%d %s | sha256sum", entry.offset, entry.offset + entry.size - 1,
                                       e.quote(url .. "/" .. entry.path)))
      assert.are.equal(entry.sha, sum:match("^(%x+)"), entry.path)
    end
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.are.same(held(central), held(branch))
  end)

  -- A central that signs its catalogs and a branch that trusts its key: what a cache or a hop on
  -- the way could change is refused, naming the source, and the branch keeps what it holds.
  it("takes only catalogs the trusted key signed, and no damaged byte", function()
    local dir = work .. "/signed"
    local vendor, central, branch, key = dir .. "/vendor", dir .. "/central", dir .. "/branch", dir .. "/central-key.pem"
    assert(os.execute("mkdir -p " .. e.quote(dir)))
    assert.are.equal(0, run(string.format("openssl genpkey -algorithm ed25519 -out %s && chmod 600 %s && " ..
                                          "openssl pkey -in %s -pubout -out %s/central.pub", key, key, key, dir)))
    e.makeSource(vendor, {products = 2, components = 6, size = 5000})
    assert.are.equal(0, (mirror(central, vendor, key)))
    local served = {central .. "/source.ini", central .. "/source.ini.sig"}
    local first = {e.read(served[1]), e.read(served[2])}
    local url
    url, stopSigned = nginx(central, dir .. "/nginx")
    assert(os.execute("mkdir -p " .. e.quote(branch)))
    e.write(branch .. "/.trusted-keys", "# the central, by its public key file\n" .. url .. "/ " .. dir .. "/central.pub\n")
    assert(os.execute("touch -d '1 minute ago' " .. e.quote(served[1]) .. " " .. e.quote(served[2])))
    local status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.are.same(held(central), held(branch))
    -- A night with nothing new: the kept catalog and its signature are revalidated, both checked.
    local before = #e.read(dir .. "/nginx/access.log")
    status, output = mirror(branch, url)
    assert.are.equal(0, status, output)
    assert.is_truthy(e.read(dir .. "/nginx/access.log"):sub(before + 1):match("GET /source%.ini%.sig HTTP/1%.1\" 304 "))
    e.makeSource(vendor, {products = 2, components = 6, size = 5000, seed = 2})
    assert.are.equal(0, (mirror(central, vendor, key)))
    assert.are.equal(0, (mirror(branch, url)))
    local current, kept = {e.read(served[1]), e.read(served[2])}, held(branch)
    assert.are_not.same(first, current)
    -- "forged" changes the current statement's signature at its first character, which may be '+' or '/'.
    for n, case in ipairs{  -- what the way to the branch serves instead, and the refusal (its reason's details
                            -- are in the whole message)
      {"unsigned", {current[1], nil}, "catalog signature missing"},
      {"tampered", {(current[1]:gsub(("%x"):rep(64), ("0"):rep(64), 1)), current[2]}, "catalog signature invalid"},
      {"forged", {current[1], (current[2]:gsub("(\nstatement %S+ %d+ %x+ )(.)", function(line, c)
        return line .. (c == "A" and "B" or "A") end, 1))}, "catalog signature invalid"},
      {"replayed", first, "older catalog"},
    } do
      for i = 1, 2 do
        os.remove(served[i])
        -- nginx's ETag is the time in seconds and the size: another time makes another file of it
        if case[2][i] then e.write(served[i], case[2][i]); os.execute("touch -d @" .. os.time() + 60 * n .. " " .. served[i]) end
      end
      status, output = mirror(branch, url)
      assert.are.equal(3, status, case[1] .. ": " .. output)
      assert.is_truthy(output:match(case[3] .. ".*" .. url:gsub("%p", "%%%0") .. "/source%.ini"), case[1] .. ": " .. output)
      assert.are.same(kept, held(branch), case[1])
    end
    for i = 1, 2 do e.write(served[i], current[i]) end
    -- A cache serving a modified range of an archive: that version fails its digest, nothing of it is stored.
    e.makeSource(vendor, {products = 2, components = 6, size = 5000, seed = 3})
    assert.are.equal(0, (mirror(central, vendor, key)))
    local old = {}
    for _, entry in ipairs(ranges(current[1])) do old[entry.sha] = true end
    local damaged
    for _, entry in ipairs(ranges(e.read(served[1]))) do damaged = damaged or (not old[entry.sha] and entry) end
    assert.are.equal(0, run(string.format("printf X | dd of=%s bs=1 seek=%d conv=notrunc 2>/dev/null",
                                          e.quote(central .. "/" .. damaged.path), damaged.offset + 100)))
    status, output = mirror(branch, url)
    assert.are.equal(3, status, output)
    assert.is_truthy(output:match("FAILED pattern/%S+: size or SHA%-256 differs from the catalog"), output)
    -- Every range the branch serves holds the bytes its catalog states, and none is the damaged one.
    for _, entry in ipairs(ranges(e.read(branch .. "/source.ini"))) do
      assert.are_not.equal(damaged.sha, entry.sha)
      local _, sum = run(string.format("tail -c +%d %s | head -c %d | sha256sum", entry.offset + 1,
                                       e.quote(branch .. "/" .. entry.path), entry.size))
      assert.are.equal(entry.sha, sum:match("^(%x+)"), entry.path)
    end
  end)
end)
