local fake = require "fakerelay"
local update = require "update"
local h = require "helpers"

local function listed(products, sources)
  fake.reset()
  update.list("repo", products, sources)
  h.assertReleased()
  return h.calls("GetInformation")[1]
end

local function listError(products, sources)
  fake.reset()
  local ok, message = pcall(update.list, "repo", products, sources)
  h.assertReleased()
  assert.is_false(ok)
  return message
end

describe("product lists", function()
  it("parse every element into a record without components", function()
    local call = listed({"c3t4l1", "c22t2213v1.12.3"})
    assert.are.equal(2, call.product_count)
    local p = call.products
    assert.are.same({3, 4, 1, 0}, {p[1].klass, p[1].type, p[1].language, p[1].component_count})
    assert.are.same({22, 2213, 1, 1200, 3}, {p[2].klass, p[2].type, p[2].major, p[2].minor, p[2].build})
    assert.is_nil(p[1].components)
    assert.are.equal(string.rep("0", 32), p[1].bytes:sub(113))  -- components and count are zero
    assert.are.equal(1, listed("c1t2").product_count)
    assert.are.equal(0, listed({}).product_count)
  end)

  it("read elements raw and stop at the first bad one", function()
    local proxied = setmetatable({}, {__index = function() return "c1t1" end, __len = function() return 3 end})
    assert.are.equal(0, listed(proxied).product_count)
    local cases = {
      {nil, "expected products"}, {true, "expected products"}, {print, "expected products"},
      {5, "invalid product class"}, {{"c3t4", 5}, "invalid product class"},
      {{"c3t4", nil, "c3t5"}, "expected product id string"}, {{"c3t4", "c3x"}, "invalid product type"},
    }
    for _, case in ipairs(cases) do
      assert.are.equal(case[2], listError(case[1]))
    end
  end)
end)

describe("source lists", function()
  it("lay out sources, then proxies, in one block", function()
    local call = listed("c1t1", {
      {url = "http://a"},
      {url = "http://b", proxy = {host = "proxy", port = 8080}},
      "not a table",
      {proxy = {type = 1, host = "h", user = "u", password = "p\233", port = 70000}},
    })
    assert.are.equal(4, call.source_count)
    local s = call.sources
    assert.are.equal("http://a", h.narrow(s[1].url))
    assert.is_nil(s[1].proxy)
    assert.are.equal(string.rep("0", 32), s[1].bytes:sub(17, 48))  -- reserved words
    assert.are.same({0, "proxy", 8080}, {s[2].proxy.type, h.narrow(s[2].proxy.host), s[2].proxy.port})
    assert.is_nil(s[2].proxy.user)
    assert.is_nil(s[2].proxy.password)
    assert.are.equal("00000000", s[2].proxy.bytes:sub(9, 16))  -- padding after type
    assert.are.equal(string.rep("0", 12), s[2].proxy.bytes:sub(37, 48))  -- padding after port
    assert.are.equal(string.rep("0", 64), s[3].bytes)
    assert.is_nil(s[4].url)
    assert.are.same({1, "u", 4464}, {s[4].proxy.type, h.narrow(s[4].proxy.user), s[4].proxy.port})
    assert.are.same({112, 0xFFFFFFE9}, s[4].proxy.password)
  end)

  it("derive proxy type and port from numbers", function()
    local cases = {  -- type, port given -> type, port stored
      {nil, 80.9, 0, 80}, {0, -1, 0, 65535}, {2, "8080", 1, 8080}, {-1, 0/0, 1, 0}, {"1", 1/0, 1, 0},
      {"x", -1/0, 0, 0}, {0/0, 2^40, 1, 0}, {true, 2147483647, 0, 65535}, {0, -2147483648, 0, 0},
      {0, 2147483648, 0, 0}, {0, "x", 0, 0},
    }
    for i, case in ipairs(cases) do
      local proxy = listed("c1t1", {{url = "u", proxy = {type = case[1], port = case[2]}}}).sources[1].proxy
      assert.are.same({case[3], case[4]}, {proxy.type, proxy.port}, "case " .. i)
    end
  end)

  it("accept a string or nothing, honour __len, refuse other values", function()
    local single = listed("c1t1", "/srv/source")
    assert.are.equal(1, single.source_count)
    assert.are.equal("/srv/source", h.narrow(single.sources[1].url))
    assert.is_nil(single.sources[1].proxy)
    assert.are.equal(0, listed("c1t1", nil).source_count)
    assert.is_nil(listed("c1t1", {}).sources)
    local counted = setmetatable({{url = "a"}, {url = "b"}, {url = "c"}}, {__len = function() return 2 end})
    assert.are.equal(2, listed("c1t1", counted).source_count)
    assert.are.equal("expected sources", listError("c1t1", true))
  end)
end)
