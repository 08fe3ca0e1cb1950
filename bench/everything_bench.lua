-- update.everything end to end, against the peers of the relay's own mirror benchmarks
-- (bench/mirror_bench.cpp, bench/http_bench.cpp): 256 MiB in 64 packages from a directory source
-- against `cp` + `sha256sum`, and from a loopback HTTP source (python's http.server) against
-- `curl` + `sha256sum` from the same server. Beside them the relay alone, the same mirror through
-- its C interface (build/bench/relaymirror): the module must add nothing measurable, its figure
-- within 5% of the relay's. Median of 5 runs each, the three in turn, after one untimed run of each.
local build = os.getenv("UPDATE_BUILD_DIR") or "build"
package.cpath = build .. "/lua/?.so;" .. package.cpath
local update = require "update"

local RUNS, MiB = 5, 1024 * 1024

local function quote(text) return "'" .. text:gsub("'", "'\\''") .. "'" end

local function capture(command)
  local pipe = io.popen(command)
  local text = pipe:read("*a")
  pipe:close()
  return text
end

local function run(command)
  assert(os.execute(command), "failed: " .. command)
end

-- Wall-clock seconds to the nanosecond. The forks of `date` count against the module and the
-- peers, about a millisecond; relaymirror times itself.
local function now() return tonumber(capture("date +%s.%N")) end

local function seconds(work)
  local start = now()
  work()
  return now() - start
end

local function median(values)
  table.sort(values)
  local n = #values
  return n % 2 == 1 and values[(n + 1) / 2] or (values[n / 2] + values[n / 2 + 1]) / 2
end

-- As the C harness: one untimed run of each, then RUNS of each in turn, dirty pages written back
-- before every run so that none pays for another's files. The order rotates from run to run, so
-- that no side always follows the same one.
local function medians(...)
  local sides, times = {...}, {}
  for i, side in ipairs(sides) do side(); times[i] = {} end
  for r = 1, RUNS do
    for k = 0, #sides - 1 do
      local i = (r + k - 1) % #sides + 1
      run("sync")
      table.insert(times[i], sides[i]())
    end
  end
  local results = {}
  for i in ipairs(sides) do results[i] = median(times[i]) end
  return table.unpack(results)
end

-- Two lines per figure: the module beside the relay alone (the target), and beside the peer.
-- For a throughput (MiB/s) more is better, for a time less.
local function report(figure, unit, module, relay, peerName, peer)
  local function slower(a, b) return unit == "MiB/s" and b / a or a / b end
  local cost = slower(module, relay) - 1
  print(string.format("%-46s module %9.3f %-5s | relay alone %9.3f %-5s | module's cost %+5.1f%% | target <= +5%% %s",
                      figure, module, unit, relay, unit, 100 * cost, cost <= 0.05 and "met" or "MISSED"))
  -- In the figure's own unit, as the relay's benchmarks print it: time for s, throughput for MiB/s.
  print(string.format("%-46s module %9.3f %-5s | %-20s %9.3f %-5s | ratio %5.2f (the relay's %5.2f)", "", module,
                      unit, peerName, peer, unit, module / peer, relay / peer))
  io.stdout:flush()
  return cost <= 0.05
end

local tmp = capture("mktemp -d"):gsub("%s+$", "")
assert(tmp:match("^/tmp/"), "no temporary directory")
local server
local function finish(ok, problem)
  if server then os.execute("kill " .. server .. " 2>/dev/null") end
  os.execute("rm -rf " .. quote(tmp))
  if not ok then
    io.stderr:write("everything: ", tostring(problem), "\n")
    os.exit(1)
  end
end

local function main()
  local source = tmp .. "/source"
  run(quote(build .. "/tools/makesource") .. " --products 1 --components 64 --size 4194304 " .. quote(source) ..
      " >/dev/null")
  -- Every product of the catalog, unversioned, and every package path with its size.
  local products, paths, bytes, section = {}, {}, 0, nil
  for line in io.lines(source .. "/server.ini") do
    section = line:match("^%[(.*)%]$") or section
    local identity, rest = line:match("^(c%S+) %S+ (.*)$")
    if identity and section == "All_Product" then products[#products + 1] = identity end
    local path, size = (rest or ""):match("^(%S+) (%d+) ")
    if identity and path then
      paths[#paths + 1], bytes = path, bytes + tonumber(size)
    end
  end
  local mib = bytes / MiB

  local serial = 0
  local function repository()
    serial = serial + 1
    return tmp .. "/repository" .. serial
  end
  local function module(from)
    return function()
      local path, status, message = repository(), nil, nil
      local elapsed = seconds(function() status, message = select(2, update.everything(path, products, from)) end)
      assert(update.ok(status), "update.everything failed: " .. tostring(message))
      run("rm -rf " .. quote(path))
      return elapsed
    end
  end
  local function relay(from)
    return function()
      local path = repository()
      local command = {quote(build .. "/bench/relaymirror"), quote(path), quote(from), quote(source .. "/server.ini")}
      local elapsed = tonumber(capture(table.concat(command, " ")))
      assert(elapsed, "relaymirror failed")
      run("rm -rf " .. quote(path))
      return elapsed
    end
  end
  local copies = tmp .. "/copies"
  local function peer(command)
    local names = {}
    for i, path in ipairs(paths) do names[i] = quote(copies .. "/" .. path:match("[^/]*$")) end
    command = command .. " && sha256sum " .. table.concat(names, " ") .. " >/dev/null"
    return function()
      run("rm -rf " .. quote(copies) .. " && mkdir " .. quote(copies))
      return seconds(function() run(command) end)
    end
  end
  local shape = string.format("everything %d MiB in %d packages, ", math.floor(mib), #paths)

  -- Directory source.
  local copy = {"cp"}
  for _, path in ipairs(paths) do copy[#copy + 1] = quote(source .. "/" .. path) end
  copy[#copy + 1] = quote(copies .. "/")
  local m, r, p = medians(module(source), relay(source), peer(table.concat(copy, " ")))
  local ok = report(shape .. "directory", "s", m, r, "cp + sha256sum", p)

  -- Loopback HTTP source.
  local log = tmp .. "/http.log"
  server = capture(string.format("python3 -u -m http.server 0 --bind 127.0.0.1 --directory %s >%s 2>&1 & echo $!",
                                 quote(source), quote(log))):match("%d+")
  local port
  for _ = 1, 600 do
    local file = io.open(log)
    port = file and file:read("*a"):match("port (%d+)")
    if file then file:close() end
    if port then break end
    run("sleep 0.05")
  end
  assert(port, "the HTTP server did not start")
  local url = "http://127.0.0.1:" .. port
  local fetch = {"curl -sSf"}
  for _, path in ipairs(paths) do
    fetch[#fetch + 1] = "-o " .. quote(copies .. "/" .. path:match("[^/]*$")) .. " " .. quote(url .. "/" .. path)
  end
  m, r, p = medians(module(url), relay(url), peer(table.concat(fetch, " ")))
  ok = report(shape .. "HTTP (python)", "MiB/s", mib / m, mib / r, "curl + sha256sum", mib / p) and ok
  return ok
end

local ran, result = pcall(main)
finish(ran, result)
os.exit(result and 0 or 1)
