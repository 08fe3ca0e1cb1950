// list() of 100,000 entities through the fake relay, beside two peers over the same data: a floor
// (the same tables built from precomputed strings with plain lua_createtable/lua_setfield) and
// cjson.decode of the same data as JSON. Then 10,000 list() calls on a small record, for memory.
#include <lua.hpp>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

struct Row {
    bool present = false;
    long numbers[6] = {};
    std::string version, name, extract, friendly;
};

std::vector<Row> rows;

int now(lua_State* L) {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    lua_pushnumber(L, static_cast<lua_Number>(t.tv_sec) * 1e9 + static_cast<lua_Number>(t.tv_nsec));
    return 1;
}

int residentBytes(lua_State* L) {
    long pages = 0, resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(statm);
    }
    lua_pushnumber(L, static_cast<lua_Number>(resident) * static_cast<lua_Number>(sysconf(_SC_PAGESIZE)));
    return 1;
}

const char* const kNumberKeys[6] = {"klass", "type", "language", "platform", "region", "oem"};

std::string stringField(lua_State* L, const char* key) {
    lua_getfield(L, -1, key);
    std::string value = lua_isstring(L, -1) ? lua_tostring(L, -1) : "";
    lua_pop(L, 1);
    return value;
}

// capture(result, n): keeps the strings of a list() result as the floor's precomputed input.
int capture(lua_State* L) {
    int n = static_cast<int>(luaL_checkinteger(L, 2));
    rows.assign(static_cast<size_t>(n), Row());
    for (int i = 1; i <= n; ++i) {
        lua_rawgeti(L, 1, i);
        if (lua_istable(L, -1)) {
            Row& row = rows[static_cast<size_t>(i - 1)];
            row.present = true;
            for (int k = 0; k < 6; ++k) {
                lua_getfield(L, -1, kNumberKeys[k]);
                row.numbers[k] = static_cast<long>(lua_tointeger(L, -1));
                lua_pop(L, 1);
            }
            row.version = stringField(L, "version");
            row.name = stringField(L, "name");
            row.extract = stringField(L, "extract");
            row.friendly = stringField(L, "friendly");
        }
        lua_pop(L, 1);
    }
    return 0;
}

// floor(): the same result table from the captured strings, with plain API calls.
int buildFloor(lua_State* L) {
    lua_createtable(L, static_cast<int>(rows.size()), 0);
    int i = 0;
    for (const Row& row : rows) {
        ++i;
        if (!row.present) continue;
        lua_createtable(L, 0, 10);
        for (int k = 0; k < 6; ++k) {
            lua_pushinteger(L, row.numbers[k]);
            lua_setfield(L, -2, kNumberKeys[k]);
        }
        lua_pushlstring(L, row.version.data(), row.version.size());
        lua_setfield(L, -2, "version");
        lua_pushlstring(L, row.name.data(), row.name.size());
        lua_setfield(L, -2, "name");
        lua_pushlstring(L, row.extract.data(), row.extract.size());
        lua_setfield(L, -2, "extract");
        if (!row.friendly.empty()) {
            lua_pushlstring(L, row.friendly.data(), row.friendly.size());
            lua_setfield(L, -2, "friendly");
            lua_pushvalue(L, -1);
            lua_setfield(L, -3, row.friendly.c_str());
        }
        lua_rawseti(L, -2, i);
    }
    return 1;
}

// json(): the captured data as a JSON array of objects.
int json(lua_State* L) {
    std::string text = "[";
    for (const Row& row : rows) {
        if (text.size() > 1) text += ",";
        if (!row.present) {
            text += "null";
            continue;
        }
        text += "{";
        for (int k = 0; k < 6; ++k) text += "\"" + std::string(kNumberKeys[k]) + "\":" + std::to_string(row.numbers[k]) + ",";
        text += "\"version\":\"" + row.version + "\",\"name\":\"" + row.name + "\",\"extract\":\"" + row.extract + "\"";
        if (!row.friendly.empty()) text += ",\"friendly\":\"" + row.friendly + "\"";
        text += "}";
    }
    text += "]";
    lua_pushlstring(L, text.data(), text.size());
    return 1;
}

const char kScript[] = R"lua(
local fake = require "fakerelay"
local update = require "update"
local hasCjson, cjson = pcall(require, "cjson")

-- 5,000 products of 19 components: patterns of every notation, scan engines, the rule package,
-- other classes; friendly names among them.
local kinds = {
  {3, 4, 1}, {3, 4, 2}, {3, 4, 4}, {3, 67108864, 1}, {3, 536870944, 1}, {3, 1073741840, 1},
  {3, 1207959808, 1}, {3, 1208222081, 1}, {3, 2048, 1}, {3, 1207992320, 2}, {3, 4, 1, true},
  {2, 1207960066, -1, true}, {2, 1207960104, -1, true}, {2, 7, -1, true}, {22, 2213, -1, true},
  {22, 2212, -1, true}, {1, 5, -1, true}, {5, 9, 3, true}, {3, 1208221798, 1},
}
local PRODUCTS, PER = 5000, #kinds
local products = {}
for p = 1, PRODUCTS do
  local components = {}
  for c, k in ipairs(kinds) do
    local threePart = k[4]
    components[c] = {klass = k[1], type = k[2], language = k[3],
      major = threePart and (c % 10 + 1) or (1234567 + p * 19 + c),
      minor = threePart and (c * 250) or 0, build = threePart and (1000 + p) or 0}
  end
  products[p] = {klass = 1, type = 100 + p % 50, language = 1, major = 10, minor = 0, build = p, components = components}
end
local record = {products = products}
local ENTITIES = PRODUCTS * (PER + 1)

local function median(t)
  table.sort(t)
  return t[math.floor((#t + 1) / 2)]
end

fake.script("GetInformation", 1, record)
local first = update.list("repo", {})
capture(first, ENTITIES)
first = nil
local text = json()

local ROUNDS = 9
local times = {list = {}, floor = {}, cjson = {}}
for _ = 1, ROUNDS do
  fake.reset()
  fake.script("GetInformation", 1, record)
  collectgarbage("collect")
  local t0 = now()
  local result = update.list("repo", {})
  times.list[#times.list + 1] = now() - t0
  assert(#result == ENTITIES or result[ENTITIES] ~= nil)
  result = nil
  collectgarbage("collect")
  t0 = now()
  result = floor()
  times.floor[#times.floor + 1] = now() - t0
  result = nil
  if hasCjson then
    collectgarbage("collect")
    t0 = now()
    result = cjson.decode(text)
    times.cjson[#times.cjson + 1] = now() - t0
    result = nil
  end
end

local list, floorTime = median(times.list), median(times.floor)
print(string.format("list() of %d entities (%d products x %d components), median of %d rounds:",
  ENTITIES, PRODUCTS, PER, ROUNDS))
print(string.format("  update.list   %8.1f ms  %6.0f ns/entity", list / 1e6, list / ENTITIES))
print(string.format("  floor         %8.1f ms  %6.0f ns/entity   list/floor = %.2f (target: at most 1.5)",
  floorTime / 1e6, floorTime / ENTITIES, list / floorTime))
if hasCjson then
  local c = median(times.cjson)
  print(string.format("  cjson.decode  %8.1f ms  %6.0f ns/entity   list/cjson = %.2f (target: below 1)",
    c / 1e6, c / ENTITIES, list / c))
else
  print("  cjson.decode  not installed (Debian package lua-cjson)")
end

-- Memory: 10,000 consecutive calls on a small record.
local small = {products = {{klass = 1, type = 1, components = {{klass = 3, type = 4, language = 1},
  {klass = 2, type = 1207960066, major = 9, minor = 750, build = 1001}}}}}
local after100
for i = 1, 10000 do
  fake.reset()
  fake.script("GetInformation", 1, small)
  update.list("repo", {}, nil, {maxbandwidth = 1})
  if i == 100 or i == 10000 then
    collectgarbage("collect")
    collectgarbage("collect")
    if i == 100 then after100 = rss() end
  end
end
local after = rss()
print(string.format("memory after 10,000 list() calls: %.2f MiB resident, after the 100th %.2f MiB: " ..
  "growth %.3f MiB (target: within 1 MiB)", after / 2^20, after100 / 2^20, (after - after100) / 2^20))
)lua";

}  // namespace

int main() {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    lua_register(L, "now", now);
    lua_register(L, "rss", residentBytes);
    lua_register(L, "capture", capture);
    lua_register(L, "floor", buildFloor);
    lua_register(L, "json", json);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "cpath");
    lua_pushfstring(L, "%s/?.so;%s", FAKE_DIR, lua_tostring(L, -1));
    lua_setfield(L, -3, "cpath");
    lua_pop(L, 2);
    int status = luaL_dostring(L, kScript);
    if (status != LUA_OK) fprintf(stderr, "list_bench: %s\n", lua_tostring(L, -1));
    lua_close(L);
    return status == LUA_OK ? 0 : 1;
}
