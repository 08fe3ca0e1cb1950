// Every operation run in a Lua state whose allocator fails after N allocations, for every N until
// the call succeeds: whatever the point of failure, the context and the relay's records are
// released (the fake counts them; the valgrind and sanitizer runs also see the module's own arrays).
#include <gtest/gtest.h>
#include <lua.hpp>

#include <stdlib.h>

extern "C" int luaopen_update(lua_State* L);
extern "C" int luaopen_fakerelay(lua_State* L);

namespace {

struct Budget { bool armed = false; long remaining = 0; };

void* limitedAlloc(void* ud, void* block, size_t oldSize, size_t newSize) {
    Budget& budget = *static_cast<Budget*>(ud);
    if (newSize == 0) {
        free(block);
        return nullptr;
    }
    if (budget.armed && newSize > oldSize && budget.remaining-- <= 0) return nullptr;
    return realloc(block, newSize);
}

// Each scenario is a Lua chunk given the module table; it returns the function to run.
const char* const kScenarios[] = {
    "local u = ... return function() return u.list('repo', {'c3t4l1', 'c1t1'},"
    " {{url = 'http://a', proxy = {host = 'h', user = 'u', password = 'p', port = 8080}}, 'x'},"
    " {maxbandwidth = 5, file_type_blacklist = 'exe', progress = function(e) return e.type == 'x' end}) end",
    "local u = ... return function() return u.list('R', {}, {{url = 'u', proxy = {host = 'h', user = 12, password = 3.5}}}) end",
    "local u = ... return function() return u.patterns('repo', {}, '/src', {ke = true, download = print}) end",
    "local u = ... return function() return u.components('repo', 'c1t1', nil, nil, {'c3t4', 'c22t2213'}) end",
    "local u = ... return function() return u.extract('repo', u.tocomponent('c3t4v1.2.3'), '/out') end",
};

// Before the budget is armed: every operation lists a product of three components, with an event.
const char kScript[] =
    "local fake = ... fake.reset() fake.event(1, {total = 10, finished = 5})"
    " local product = {klass = 1, type = 1, components = {{klass = 3, type = 4, language = 1},"
    " {klass = 22, type = 2213}, {klass = 2, type = 1207960066}}}"
    " for _, call in ipairs{'GetInformation', 'Duplicate'} do fake.script(call, 1, {products = {product}}) end";

TEST(Exhaustion, EveryOperationReleasesWhereverMemoryRunsOut) {
    for (const char* scenario : kScenarios) {
        bool succeeded = false;
        for (long limit = 0; limit < 20000 && !succeeded; ++limit) {
            Budget budget;
            lua_State* L = lua_newstate(limitedAlloc, &budget);
            luaL_openlibs(L);
            luaL_requiref(L, "fakerelay", luaopen_fakerelay, 0);
            ASSERT_EQ(luaL_loadstring(L, kScript), LUA_OK);
            lua_pushvalue(L, 1);
            ASSERT_EQ(lua_pcall(L, 1, 0, 0), LUA_OK);
            luaopen_update(L);
            ASSERT_EQ(luaL_loadstring(L, scenario), LUA_OK);
            lua_insert(L, -2);
            ASSERT_EQ(lua_pcall(L, 1, 1, 0), LUA_OK);
            budget.remaining = limit;
            budget.armed = true;
            succeeded = lua_pcall(L, 0, 0, 0) == LUA_OK;
            budget.armed = false;
            lua_getfield(L, 1, "counts");
            ASSERT_EQ(lua_pcall(L, 0, 1, 0), LUA_OK);
            lua_getfield(L, -1, "contexts");
            lua_getfield(L, -2, "records");
            EXPECT_EQ(lua_tointeger(L, -2) + lua_tointeger(L, -1), 0) << scenario << " limit " << limit;
            lua_close(L);
        }
        EXPECT_TRUE(succeeded) << scenario;
    }
}

}  // namespace
