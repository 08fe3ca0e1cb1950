local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

-- The GetInformation call of update.list(products, sources), or the error it raised.
local function listed(products, sources)
  fake.reset()
  local ok, message = pcall(update.list, "repo", products, sources)
  h.assertReleased()
  return ok and h.calls("GetInformation")[1] or message
end

describe("product lists", function()
  it("parse every element into a record without components", function()
    local call = listed({"c3t4l1", "c22t2213v1.12.3"})
    local p = call.products
    assert.are.same({2, 3, 4, 1, 0}, {call.product_count, p[1].klass, p[1].type, p[1].language, p[1].component_count})
    assert.are.same({22, 2213, 1, 1200, 3}, {p[2].klass, p[2].type, p[2].major, p[2].minor, p[2].build})
    assert.is_nil(p[1].components)
    assert.are.same({1, 0}, {listed("c1t2").product_count, listed({}).product_count})
  end)

  it("read elements raw and stop at the first bad one", function()
    local proxied = setmetatable({}, {__index = function() return "c1t1" end, __len = function() return 3 end})
    assert.are.equal(0, listed(proxied).product_count)
    local cases = {
      {nil, "expected products"}, {true, "expected products"}, {print, "expected products"},
      {5, "invalid product class"}, {{"c3t4", 5}, "invalid product class"},
      {{"c3t4", nil, "c3t5"}, "expected product id string"}, {{"c3t4", "c3x"}, "invalid product type"},
    }
    for _, case in ipairs(cases) do assert.are.equal(case[2], listed(case[1])) end
  end)
end)

describe("source lists", function()
  it("lay out sources, then proxies, zero-filled", function()
    local s = listed("c1t1", {
      {url = "http://a"}, {url = "http://b", proxy = {host = "proxy", port = 8080}}, "not a table",
      {proxy = {type = 1, host = "h", user = "u", password = "p\233", port = 70000}},
    }).sources
    assert.are.same({"http://a", true, true, true, true}, {h.narrow(s[1].url), s[1].zeroed, s[2].zeroed, s[3].zeroed, s[4].zeroed})
    assert.are.same({{type = 0, host = {112, 114, 111, 120, 121}, port = 8080}, {zeroed = true}},
                    {s[2].proxy, s[3]})
    assert.are.same({nil, {type = 1, host = {104}, user = {117}, password = {112, 0xFFFFFFE9}, port = 4464}},
                    {s[1].proxy, s[4].proxy})
  end)

  it("derive proxy type and port from numbers, and read fields given as numbers", function()
    local cases = {  -- type, port given -> type, port stored
      {nil, 80.9, 0, 80}, {0, -1, 0, 65535}, {2, "8080", 1, 8080}, {-1, 0/0, 1, 0}, {"1", 1/0, 1, 0},
      {"x", -1/0, 0, 0}, {0/0, 2^40, 1, 0}, {true, 2147483647, 0, 65535}, {0, -2147483648, 0, 0},
      {0, 2147483648, 0, 0}, {0, "x", 0, 0},
    }
    for i, case in ipairs(cases) do
      local proxy = listed("c1t1", {{url = "u", proxy = {type = case[1], port = case[2], user = 12}}}).sources[1].proxy
      assert.are.same({case[3], case[4], "12"}, {proxy.type, proxy.port, h.narrow(proxy.user)}, "case " .. i)
    end
  end)

  it("accept a string or nothing, honour __len, refuse other values", function()
    local single = listed("c1t1", "/srv/source")
    assert.are.same({1, {url = {47, 115, 114, 118, 47, 115, 111, 117, 114, 99, 101}, zeroed = true}, 0, nil},
                    {single.source_count, single.sources[1], listed("c1t1", nil).source_count, listed("c1t1", {}).sources})
    local counted = setmetatable({{url = "a"}, {url = "b"}, {url = "c"}}, {__len = function() return 2 end})
    assert.are.equal(2, listed("c1t1", counted).source_count)
    assert.are.equal("expected sources", listed("c1t1", true))
  end)
end)
