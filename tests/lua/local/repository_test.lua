-- A real repository, end to end against the local relay: the clean-up after mirroring, export of
-- an entity table from a listing, cancellation by a handler, and how failures come back. Every
-- operation opens a relay context, after which the module removes /dev/shm/sem.zovrelay.
local update = require "update"
local e = require "endtoend"

local E, S = "c3t4l1p-1r-1o-1", "c2t1207960066l-1p-1r-1o-1"
local PRODUCT0 = {"c3t110l2p-1r-1o-1", E, "c3t4l4p-1r-1o-1", "c22t2213l-1p-1r-1o-1", S, "c7t120l-1p-1r-1o-1"}
table.sort(PRODUCT0)

describe("a repository", function()
  local work, source, serial
  lazy_setup(function()
    work = e.tempdir()
    source = work .. "/source"
    e.makeSource(source, {products = 2, components = 6, size = 5000})
    serial = 0
  end)
  lazy_teardown(function() e.rmtree(work) end)

  local function repository()
    serial = serial + 1
    return work .. "/repository" .. serial
  end

  it("is cleaned up after mirroring unless the options say otherwise", function()
    local function keepEngine(path) return path:find(S, 1, true) ~= nil end
    local cases = {  -- operation, options -> server.ini reset, per-version archives left
      {"everything", {}, true, {}},
      {"patterns", {}, true, {}},
      {"everything", {ke = true}, false, PRODUCT0},
      {"everything", {ke = false}, true, {}},
      {"everything", {removeke = keepEngine}, true, {S}},
      {"everything", {removeke = keepEngine, ke = true}, false, PRODUCT0},
      {"components", {}, false, {S}},  -- components() never cleans up
    }
    for i, case in ipairs(cases) do
      local path = repository()
      local options = case[2]
      options.buildpatch = true
      local _, status = update[case[1]](path, "c1t100", source, options, "c2t1207960066")
      assert.are.equal(1, status, "case " .. i)
      assert.are.equal(case[3], e.read(path .. "/server.ini") == e.INDEX, "case " .. i)
      assert.are.same(case[4], e.archives(path, "version"), "case " .. i)
      assert.is_true(#e.archives(path, "merged") > 0, "case " .. i)
    end
  end)

  it("exports a component named by an entity table from a listing", function()
    local path, destination = repository(), work .. "/export"
    assert(update.patterns(path, {}, source))
    for _, listing in ipairs{(update.list(path, {})), (update.list(path, {}, source))} do  -- repository, source
      os.remove(destination .. "/" .. E .. "-1.100.1.0.zip")
      assert.are.same({true, 1, "success"}, {update.extract(path, listing.kerno_english, destination)})
      assert.are.equal(e.read(source .. "/pattern/" .. E .. "-1.100.1.0.zip"),
                       e.read(destination .. "/" .. E .. "-1.100.1.0.zip"))
    end
    -- patterns() did not mirror the engine, so there is nothing to export.
    assert.are.same({nil, -6, "not found: c2t1207960066l-1p-1r-1o-1"}, {update.extract(path, "c2t1207960066l-1p-1r-1o-1", destination)})
    assert.are.same({E .. "-1.100.1.0.zip"}, e.names(destination))
  end)

  it("stops mirroring when a handler answers a true value or raises", function()
    local cases = {  -- answer of the second downloadbegin -> status, components kept
      {true, -8, 1}, {0, -8, 1}, {error, -8, 1}, {false, 1, 5}, {nil, 1, 5},
    }
    for i, case in ipairs(cases) do
      local path, count = repository(), 0
      local function handler()
        count = count + 1
        if count < 2 then return end
        if case[1] == error then error("stop here") end
        return case[1]
      end
      local result, status, message = update.patterns(path, {}, source, {downloadbegin = handler})
      assert.are.same({case[2], case[2] == 1 and "success" or "cancelled"}, {status, message}, "case " .. i)
      assert.are.equal(case[2] == 1, result ~= nil, "case " .. i)
      assert.are.equal(case[3], #e.archives(path, "merged"), "case " .. i)
      for _, name in ipairs(e.names(path .. "/packages")) do
        assert.is_nil(name:match("^%."), "case " .. i .. ": temporary " .. name)
      end
      assert.are.equal(e.INDEX, e.read(path .. "/server.ini"), "case " .. i)  -- cleaned up all the same
    end
  end)

  it("stores each version once with buildpatch where the file system shares blocks", function()
    local image, mount, large = work .. "/xfs.img", work .. "/xfs", work .. "/large"
    local pipe = io.popen(string.format("(truncate -s 320M %s && mkfs.xfs -q %s && mkdir %s && mount -o loop %s %s) 2>&1",
                                        image, image, mount, image, mount))
    local out, mounted = pipe:read("*a"), pipe:close()
    if not mounted then return pending("no XFS loop mount here (needs root and xfsprogs): " .. out) end
    finally(function() os.execute("umount " .. mount .. "; rm -f " .. image) end)
    local function used()  -- bytes, once delayed allocation is settled
      assert(os.execute("sync -f " .. mount))
      local df = io.popen("stat -f -c '%S %b %f' " .. mount)
      local size, blocks, free = df:read("*n", "*n", "*n")
      df:close()
      return size * (blocks - free)
    end
    local before, held = used(), 0
    for seed = 1, 2 do  -- two versions at once, then a third: packages are shared, then copies kept shared
      e.makeSource(large, {products = 1, components = 1, size = 1048576, versions = 3 - seed, seed = seed})
      assert(update.patterns(mount .. "/repository", {}, large, {buildpatch = true, ke = true, maxmerge = 2}))
      held = held + (3 - seed) * 1048576
    end
    -- Merged and per-version archives of every version, and the second night's copies of the first;
    -- the first night's archive stays published for two nights, with the version the second dropped.
    held = held + 1048576
    assert.are.equal(3, #e.archives(mount .. "/repository", "version"))
    assert.is_true(used() - before < held * 1.1, "stored " .. (used() - before) .. " bytes for " .. held)
  end)

  it("lists itself from a handler of a mirror running on it: readers never wait", function()
    local path, inner = repository(), nil
    local options = {download = function() inner = {update.list(path, {})} end}
    assert.are.same({1, "success"}, {select(2, update.patterns(path, {}, source, options))})
    assert.are.same({{}, 1, "success"}, inner)
  end)
end)
