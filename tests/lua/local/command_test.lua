-- The command update-mirror run as an administrator runs it, against a sample source served over
-- loopback HTTP: the dry run's promise, the JSON summary, the exit statuses and the one-line
-- refusals of bad configurations.
local e = require "endtoend"
local cjson = require "cjson"

local top = debug.getinfo(1, "S").source:match("^@(.*)/tests/lua/local/[^/]*$")
local COMMAND = top .. "/command/update-mirror.lua"

describe("update-mirror", function()
  local work, url, stop
  lazy_setup(function()
    work = e.tempdir()
    e.makeSource(work .. "/source", {products = 2, components = 6, size = 5000})
    url, stop = e.serve(work .. "/source", work)
  end)
  lazy_teardown(function()
    if stop then stop() end
    e.rmtree(work)
  end)

  -- Runs the command (after an optional prefix such as `flock DIR`, with optional options of the
  -- interpreter, followed by an optional suffix of the shell); returns its exit status, standard
  -- output and standard error.
  local function run(args, prefix, interpreter, suffix)
    local command = string.format("%s %s %s %s %s >%s/out 2>%s/err %s", prefix or "", e.LUA, interpreter or "",
                                  e.quote(COMMAND), args, e.quote(work), e.quote(work), suffix or "")
    local _, _, code = os.execute(command)
    return code, e.read(work .. "/out"), e.read(work .. "/err")
  end

  -- Every file under a directory with its SHA-256.
  local function hashes(directory)
    local pipe = io.popen("cd " .. e.quote(directory) .. " && find . -type f -exec sha256sum {} + | sort")
    local text = pipe:read("*a")
    pipe:close()
    return text
  end

  local function paths(entries, key)
    local found = {}
    for _, entry in ipairs(entries) do found[#found + 1] = type(entry) == "table" and entry[key or "path"] or entry end
    table.sort(found)
    return found
  end

  -- The dry run is the relay's own plan: for each job of the matrix, on a repository prepared by
  -- the jobs before it, the dry run changes nothing and lists exactly the downloads (paths and
  -- bytes) and removals of the real run that follows.
  it("does what its dry run listed, item for item", function()
    local many = work .. "/many"  -- three versions of each component
    e.makeSource(many, {products = 2, components = 6, size = 3000, versions = 3})
    local manyUrl, stopMany = e.serve(many, work)
    local stops = {stopMany}  -- busted keeps only the last finally of a test
    finally(function() for _, stop in ipairs(stops) do stop() end end)
    -- A copy whose newest kerno pattern is published again under the same version, other bytes.
    local republished = work .. "/republished"
    os.execute(string.format("cp -r %s %s", e.quote(many), e.quote(republished)))
    local catalog, path = e.read(republished .. "/server.ini"), "pattern/c3t4l1p-1r-1o-1-3.100.1.0.zip"
    local old = catalog:match(path:gsub("%p", "%%%0") .. " 3120 (%x+)")
    e.write(republished .. "/" .. path, string.rep("x", 3120))
    local new = io.popen("sha256sum " .. e.quote(republished .. "/" .. path)):read("*l"):match("%x+")
    e.write(republished .. "/server.ini", (catalog:gsub(old, new)))
    -- A certificate for another name, from an authority the runs trust.
    assert(os.execute("(" .. table.concat({"cd " .. e.quote(work),
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=ca -keyout ca.key -out ca.pem",
      "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=other -keyout other.key -out other.csr",
      "printf 'subjectAltName=DNS:other.example\\n' >other.ext",
      "openssl x509 -req -in other.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile other.ext -out other.crt",
      "cat other.crt other.key >other.pem"}, " && ") .. ") >/dev/null 2>&1"))
    local httpsUrl, stopHttps = e.serve(many, work, work .. "/other.pem")
    stops[#stops + 1] = stopHttps
    local chain  -- the repository the "central" jobs make, served as a source
    local jobs = {  -- repository, source, arguments; the jobs of one repository run in order
      {"one", manyUrl, ""},
      {"one", manyUrl, "--option maxmerge=3"},
      {"patched", many, "--option maxmerge=3 --option buildpatch=true --no-cleanup"},
      {"patched", many, "--option maxmerge=2 --option buildpatch=true --option keepcount=1 --no-cleanup"},
      {"patched", republished, "--option maxmerge=2 --option buildpatch=true"},
      {"kept", many, "-c " .. e.quote(work .. "/keep.conf") .. " --option maxmerge=3 --option buildpatch=true"},
      {"central", manyUrl, "--mirror everything --product c1t100 --product c1t101 --option maxmerge=3"},
      {"branch", "chain", "--mirror everything --product c1t100 --option maxmerge=3"},
      {"secure", httpsUrl, "--option httpslevel=1"},
    }
    e.write(work .. "/keep.conf", "cleanup = {keep = {'c3t4'}}")
    for _, job in ipairs(jobs) do
      local repository = work .. "/matrix-" .. job[1]
      if job[2] == "chain" and not chain then
        chain = {e.serve(work .. "/matrix-central", work)}
        stops[#stops + 1] = chain[2]
      end
      local source = job[2] == "chain" and chain[1] or job[2]
      local args = string.format("--repository %s --source %s %s --json", e.quote(repository), e.quote(source), job[3])
      local prefix = "CURL_CA_BUNDLE=" .. e.quote(work .. "/ca.pem")
      local before = e.exists(repository) and hashes(repository)
      local code, out, err = run(args .. " --dry-run", prefix)
      assert.are.equal(0, code, args .. err)
      local plan = cjson.decode(out)
      assert.are.equal(before, e.exists(repository) and hashes(repository), args)
      code, out, err = run(args, prefix)
      assert.are.equal(0, code, args .. err)
      local summary = cjson.decode(out)
      for _, key in ipairs{"downloaded", "removed"} do
        assert.are.same(paths(plan[key]), paths(summary[key]), args .. " " .. key)
      end
      assert.are.same(paths(plan.downloaded, "bytes"), paths(summary.downloaded, "bytes"), args)
      assert.are.same({plan.bytes, #plan.skipped}, {summary.bytes, #summary.skipped}, args)
    end
    local listed = cjson.decode((select(2, run("--repository " .. e.quote(work .. "/matrix-one") .. " --list --json"))))
    assert.are.equal(2, #listed.products)
    -- A friendly name exports the newest of the versions held.
    assert.are.equal(0, run("--repository " .. e.quote(work .. "/matrix-one") .. " --export kerno_english " .. e.quote(work .. "/export")))
    assert.are.same({"c3t4l1p-1r-1o-1-3.100.1.0.zip"}, e.names(work .. "/export"))
  end)

  it("reads its sources through the configured proxy, in the dry run too", function()
    local pipe = io.popen("python3 -c 'import socket; s = socket.socket(); s.bind((\"127.0.0.1\", 0)); print(s.getsockname()[1])'")
    local port = pipe:read("*n")
    pipe:close()
    e.write(work .. "/tinyproxy.conf", string.format("Port %d\nListen 127.0.0.1\nLogLevel Connect\n", port))
    pipe = io.popen(string.format("tinyproxy -d -c %s/tinyproxy.conf >%s/tinyproxy.log 2>&1 & echo $!", work, work))
    local pid = pipe:read("*n")
    pipe:close()
    finally(function() os.execute("kill " .. pid) end)
    for _ = 1, 200 do
      if os.execute(string.format("curl -sf -o /dev/null -x http://127.0.0.1:%d %s/server.ini", port, url)) then break end
      os.execute("sleep 0.05")
    end
    e.write(work .. "/proxied.conf", string.format([[repository = %q
      sources = {{url = %q, proxy = {host = "127.0.0.1", port = %d}}}
      products = "c1t100"]], work .. "/proxied", url, port))
    local function catalogReads()
      return select(2, e.read(work .. "/tinyproxy.log"):gsub("GET " .. url:gsub("%p", "%%%0") .. "/server.ini", ""))
    end
    local before = catalogReads()
    -- The relay's listing and the command's own read for the sizes.
    local plan = cjson.decode((select(2, run("-c " .. e.quote(work .. "/proxied.conf") .. " --dry-run --json"))))
    assert.are.same({20480, 4, before + 2}, {plan.bytes, #plan.downloaded, catalogReads()})
    local code, out = run("-c " .. e.quote(work .. "/proxied.conf") .. " --json")
    assert.are.same({0, 20480}, {code, cjson.decode(out).bytes})
    assert.matches("GET " .. url:gsub("%p", "%%%0") .. "/rule/c22t2213", e.read(work .. "/tinyproxy.log"))
  end)

  it("verifies, repairs, keeps quiet when nothing is new and stops cleanly", function()
    local repository = work .. "/kept"
    local job = string.format("--repository %s --source %s", e.quote(repository), url)
    assert.are.equal(0, run(job))
    assert.are.same({0, "", ""}, {run(job .. " --quiet")})
    -- A byte of a held package flipped in place, its times restored: only a read-back finds it.
    local identity = e.archives(repository, "merged")[1]
    local archive = repository .. "/packages/" .. identity .. "_merged.zip"
    local bytes = e.read(archive)
    os.execute("touch -r " .. e.quote(archive) .. " " .. e.quote(work .. "/times"))
    e.write(archive, bytes:sub(1, 99) .. string.char((bytes:byte(100) + 1) % 256) .. bytes:sub(101))
    os.execute("touch -r " .. e.quote(work .. "/times") .. " " .. e.quote(archive))
    local before = hashes(repository)
    local code, out, err = run(job .. " --verify --json")
    assert.are.same({4, 1, before}, {code, #cjson.decode(out).damaged, hashes(repository)})
    assert.matches("damaged: c%S+ [%d.]+: damaged copy in its merged archive\n.*damaged item found", err)
    -- An export that meets the damage blames the repository, not the source.
    code, _, err = run(job .. " --export " .. identity .. " " .. e.quote(work .. "/damaged"))
    assert.are.equal(4, code)
    assert.matches("held copy damaged: [^\n]*_merged%.zip %(status %-10%)", err)
    code, out = run(job .. " --repair --json")
    assert.are.same({0, 1, 1}, {code, #cjson.decode(out).damaged, #cjson.decode(out).downloaded})
    assert.are.equal(0, (run(job .. " --verify")))
    -- SIGTERM while the packages trickle in: one line, its own status, a report, parts kept.
    local stopped = work .. "/stopped"
    code, _, err = run(string.format("--repository %s --source %s --limit 1", e.quote(stopped), url), nil, nil,
                       "& sleep 1; kill -TERM $!; wait $!")
    assert.are.same({6, true}, {code, e.exists(stopped .. "/report.json")})
    assert.matches("^update%-mirror: stopped by SIGTERM; what was downloaded is kept for the next run[^\n]*\n$", err)
  end)

  it("tells failures apart by its exit status, each with one line", function()
    local repository, openKey = e.quote(work .. "/busy"), work .. "/open-key.pem"
    e.write(openKey, "a key anyone may read")
    os.execute("chmod 644 " .. e.quote(openKey))
    local trusting = work .. "/trusting.conf"  -- the source signs nothing
    e.write(trusting, string.format("repository = %q sources = %q trusted_keys = {[%q] = %q}", work .. "/trusting", url, url,
                                    ("ab"):rep(32)))
    local cases = {  -- arguments, prefix, exit status, the line on standard error
      {"--repository /dev/null/x --source " .. url, nil, 4, "repository not accessible %(not a directory%): /dev/null/x %(status %-3%)"},
      {"--repository " .. repository .. " --source " .. url, "mkdir -p " .. repository .. " && flock " .. repository .. "/.lock",
       5, "repository is busy: [^\n]*/busy/%.lock %(status %-9%)"},
      {"--repository " .. repository .. " --source " .. e.quote(work .. "/nowhere"), nil, 3, "no such file: .*/nowhere/server%.ini %(status %-5%)"},
      {"--repository " .. repository .. " --frobnicate", nil, 2, "unknown option %-%-frobnicate"},
      {"-c " .. e.quote(trusting) .. " --dry-run", nil, 3, "planning failed: catalog signature missing %(HTTP 404%): http://[^ ]*/server%.ini %(status %-11%)"},
      {"--repository " .. repository .. " --source " .. url, "UPDATE_SIGNING_KEY=" .. e.quote(openKey), 2,
       "signing key .*/open%-key%.pem is open to others than its owner %(mode 0644%): chmod 600 it %(status %-1%)"},
      -- The shipped example configuration passes every check.
      {"-c " .. e.quote(top .. "/examples/update-mirror.conf") .. " --repository " .. e.quote(work .. "/none") .. " --list",
       nil, 4, "is not a repository"},
      {"--repository " .. repository .. " --source " .. url, "LUA_CPATH=/nowhere/?.so", 1, "cannot load the update module"},
    }
    for _, case in ipairs(cases) do
      local code, _, err = run(case[1], case[2])
      assert.are.equal(case[3], code, case[1])
      assert.matches("^update%-mirror: [^\n]*" .. case[4] .. "[^\n]*\n$", err)
    end
  end)

  it("reports each package that failed with its reason", function()
    -- Against the fake relay: the mirror raises these events, then answers "integrity check failed".
    local setup = [[local update, fake = require "update", require "fakerelay"
      local patterns = update.patterns
      update.patterns = function(...)
        fake.event(5, {information = "p/a.zip", total = 4, finished = 4})
        fake.event(5, {information = "p/b.zip: 7 bytes, the catalog says 6", total = 6, finished = 0})
        fake.script("Duplicate", -7)
        return patterns(...)
      end]]
    local fakeRelay = "LUA_CPATH=" .. e.quote(os.getenv("UPDATE_BUILD_DIR") .. "/fake/?.so;;")
    local code, out, err = run("--repository r --source s --no-cleanup --json", fakeRelay, "-e " .. e.quote(setup))
    assert.are.equal(3, code)
    local summary = cjson.decode(out)
    assert.are.same({{path = "p/a.zip", bytes = 4}}, summary.downloaded)
    assert.are.same({{path = "p/b.zip", reason = "7 bytes, the catalog says 6"}}, summary.failed)
    assert.are.same({-7, 3}, {summary.status, summary.exit})
    assert.matches("failed: p/b.zip: 7 bytes, the catalog says 6\n.*%(status %-7%)\n$", err)
  end)

  it("refuses a bad configuration with one line naming the file and the key", function()
    local file = work .. "/mirror.conf"
    local cases = {  -- the file's text, the problem after "update-mirror: <file>"
      {"repository = '/srv/r' sources = {'/x'} colour = 1", ": unknown key colour"},
      {"repository = '/srv/r' sources = {{url = 'http://h', proxy = {host = 'p', port = 0}}}",
       ": sources%[1%]%.proxy%.port must be a port number"},
      {"repository = '/srv/r' sources = '/x' products = {'x100'}", ": products%[1%]: \"x100\" is not an identifier"},
      {"repository = '/srv/r' sources = '/x' mirror = 'everything'", ": products: mirror = \"everything\" needs"},
      {"repository = '/srv/r' sources = '/x' options = {maxbandwith = 1}", ": options%.maxbandwith: unknown relay option"},
      {"repository = '/srv/r' sources = '/x' cleanup = {keep = 'c2'}", ": cleanup%.keep%[1%]: \"c2\" is not an identifier"},
      {"sources = '/x'", ": repository is missing"},
      {"repository = '/srv/r' sources = '/x' signing_key = 'key.pem'", ": signing_key must be an absolute path"},
      {"repository = '/srv/r' sources = '/x' trusted_keys = {['http://c/'] = {'a b'}}",
       ": trusted_keys%[http://c/%]%[1%] is not a public key"},
      {"repository = os.getenv('HOME')", ":1: attempt to index global 'os'"},
      {"repository = '/srv/r' sources = {", ":1: unexpected symbol near <eof>"},
      {"while true do end", ": takes too long to run"},
    }
    for _, case in ipairs(cases) do
      e.write(file, case[1])
      local code, _, err = run("--config " .. e.quote(file) .. " --dry-run")
      assert.are.equal(2, code, case[1])
      assert.matches("^update%-mirror: " .. file:gsub("%p", "%%%0") .. case[2] .. "[^\n]*\n$", err)
    end
  end)
end)
