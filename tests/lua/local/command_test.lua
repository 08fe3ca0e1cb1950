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
  -- interpreter); returns its exit status, standard output and standard error.
  local function run(args, prefix, interpreter)
    local command = string.format("%s %s %s %s %s >%s/out 2>%s/err", prefix or "", e.LUA, interpreter or "",
                                  e.quote(COMMAND), args, e.quote(work), e.quote(work))
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

  it("runs what its dry run promised, and the dry run changes nothing", function()
    local repository = work .. "/repository"
    local job = string.format("--repository %s --source %s", e.quote(repository), url)
    -- A first run holds the kerno patterns and leaves their per-version archives.
    assert.are.equal(0, run(job .. " --mirror components --component c3t4 --option buildpatch=true --no-cleanup"))
    local before = hashes(repository)

    local code, out = run(job .. " --dry-run --json")
    assert.are.equal(0, code)
    local plan = cjson.decode(out)
    assert.are.equal(before, hashes(repository))
    assert.are.same({"c22t2213l-1p-1r-1o-1", "c3t110l2p-1r-1o-1", "c3t210l2p-1r-1o-1"}, paths(plan.downloaded, "name"))
    assert.are.same({"c3t4l1p-1r-1o-1", "c3t4l4p-1r-1o-1"}, paths(plan.skipped, "name"))
    assert.are.equal(2, #plan.removed)
    assert.are.equal(15360, plan.bytes)

    code, out = run(job .. " --json")
    assert.are.equal(0, code)
    local summary = cjson.decode(out)
    assert.are.same({1, "success", 0, {}}, {summary.status, summary.message, summary.exit, summary.failed})
    assert.are.same(paths(plan.downloaded), paths(summary.downloaded))
    assert.are.same(paths(plan.skipped, "name"), paths(summary.skipped, "name"))
    assert.are.same(paths(plan.removed), paths(summary.removed))
    assert.are.equal(plan.bytes, summary.bytes)
    -- What the summary says was downloaded or held is exactly what the repository now holds.
    local held = paths(summary.skipped, "name")
    for _, entry in ipairs(plan.downloaded) do held[#held + 1] = entry.name end
    table.sort(held)
    assert.are.same(held, e.archives(repository, "merged"))
    assert.are.same({}, e.archives(repository, "version"))

    local listed = cjson.decode((select(2, run(job .. " --list --json"))))
    assert.are.equal(2, #listed.products)
    assert.are.equal(0, run(job .. " --export kerno_english " .. e.quote(work .. "/export")))
    assert.are.same({"c3t4l1p-1r-1o-1-1.100.1.0.zip"}, e.names(work .. "/export"))
  end)

  it("downloads what its dry run promised, whatever the job selects", function()
    local jobs = {
      "--mirror everything --product c1t100 --option enable_check_file_type_blacklist=true --option file_type_blacklist=.PKG",
      "--mirror patterns-except-kerno --product c1t101",
      "--component c2t1207960066 --component c7t220",
    }
    for i, job in ipairs(jobs) do
      job = string.format("--repository %s --source %s %s --json", e.quote(work .. "/job" .. i), url, job)
      local plan = cjson.decode((select(2, run(job .. " --dry-run"))))
      local summary = cjson.decode((select(2, run(job))))
      assert.are.same(paths(plan.downloaded), paths(summary.downloaded), job)
      assert.are.same(i == 1 and 5 or 2, #summary.downloaded, job)
    end
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

  it("tells failures apart by its exit status, each with one line", function()
    local repository = e.quote(work .. "/busy")
    local cases = {  -- arguments, prefix, exit status, the line on standard error
      {"--repository /dev/null/x --source " .. url, nil, 4, "repository not accessible %(not a directory%): /dev/null/x %(status %-3%)"},
      {"--repository " .. repository .. " --source " .. url, "mkdir -p " .. repository .. " && flock " .. repository .. "/.lock",
       4, "repository is busy: [^\n]*/busy/%.lock %(status %-9%)"},
      {"--repository " .. repository .. " --source " .. e.quote(work .. "/nowhere"), nil, 3, "no such file: .*/nowhere/server%.ini %(status %-5%)"},
      {"--repository " .. repository .. " --frobnicate", nil, 2, "unknown option %-%-frobnicate"},
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
