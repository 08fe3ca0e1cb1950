-- Listing and mirroring end to end, against the local relay, from a directory source and from the
-- same source served over loopback HTTP: what each operation and filter lands in the repository.
-- Every operation opens a relay context, after which the module removes /dev/shm/sem.zovrelay.
local update = require "update"
local e = require "endtoend"

-- The sample source's components (two products, six components each; see tools/makesource).
local E, J = "c3t4l1p-1r-1o-1", "c3t4l4p-1r-1o-1"           -- kerno patterns, shared
local R, S = "c22t2213l-1p-1r-1o-1", "c2t1207960066l-1p-1r-1o-1"  -- rule package, engine, shared
local P0, P1 = "c3t110l2p-1r-1o-1", "c3t210l2p-1r-1o-1"     -- each product's own pattern
local O0 = "c7t120l-1p-1r-1o-1"                             -- product 0's .pkg package

local function sorted(list) table.sort(list); return list end

describe("mirroring from", function()
  local work, directory, url, stop
  lazy_setup(function()
    work = e.tempdir()
    directory = work .. "/source"
    e.makeSource(directory, {products = 2, components = 6, size = 5000})
    url, stop = e.serve(directory, work)
  end)
  lazy_teardown(function()
    if stop then stop() end
    e.rmtree(work)
  end)

  local serial = 0
  local function repository()
    serial = serial + 1
    return work .. "/repository" .. serial
  end

  for _, kind in ipairs{"a directory", "loopback HTTP"} do
    local function source() return kind == "a directory" and directory or url end

    it(kind .. " lands exactly what each operation selects", function()
      local cases = {  -- operation, products, names -> components mirrored [, components listed]
        {"list", {}, nil, {}, sorted{E, J, R, S, P0, P1, O0, "c7t220l-1p-1r-1o-1"}},
        {"list", "c1t101", nil, {}, sorted{E, J, R, S, P1, "c7t220l-1p-1r-1o-1"}},
        {"everything", {}, nil, {}},
        {"everything", {"c1t100"}, nil, sorted{E, J, R, S, P0, O0}},
        {"patterns", {}, nil, sorted{E, J, R, P0, P1}},
        {"patterns", "c1t101", nil, sorted{E, J, R, P1}},
        {"patternsExceptKerno", {}, nil, sorted{R, P0, P1}},
        {"components", {}, {"c2t1207960066", "c7t120"}, sorted{S, O0}},
        {"components", {}, "c3t4l9", sorted{E, J}},
        {"components", {}, nil, {}},
      }
      for i, case in ipairs(cases) do
        local path = repository()
        local result, status, message = update[case[1]](path, case[2], source(), nil, case[3])
        assert.are.same({1, "success"}, {status, message}, "case " .. i)
        assert.are.same(case[4], e.archives(path, "merged"), "case " .. i)
        assert.are.same(case[5] or case[4], e.components(result), "case " .. i)
      end
    end)

    it(kind .. " reports each download and never downloads twice", function()
      local path = repository()
      local function mirror()
        local seen = {}
        local function record(event) seen[#seen + 1] = event end
        local options = {ke = true}
        for _, name in ipairs{"download", "downloadbegin", "progress", "downloadend"} do options[name] = record end
        assert.are.same({1, "success"}, {select(2, update.patterns(path, {}, source(), options))})
        return seen
      end

      local first = mirror()
      assert.are.same({"download", source(), 0}, {first[1].type, first[1].information, first[1].finished})
      local planned = first[1].total
      local per = {}  -- packages transfer in parallel: their events interleave, each in order
      for i = 2, #first do
        per[first[i].information] = per[first[i].information] or {}
        table.insert(per[first[i].information], first[i])
      end
      for _, events in pairs(per) do  -- per package: downloadbegin, one progress (small packages), downloadend
        local begin, progress, finish = events[1], events[2], events[3]
        assert.are.same({"downloadbegin", "progress", "downloadend", begin.information, 0, begin.total, begin.total},
                        {begin.type, progress.type, finish.type, finish.information, begin.finished,
                         progress.finished, finish.finished})
        planned = planned - finish.total
      end
      assert.are.same({0, 16}, {planned, #first})  -- five packages

      local second = mirror()
      assert.are.equal(1, #second)
      assert.are.same({"download", 0}, {second[1].type, second[1].total})
    end)
  end
end)
