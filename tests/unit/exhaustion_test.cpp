// Every operation run in a Lua state whose allocator fails after N allocations, for every N until
// the call succeeds: whatever the point of failure, the context and the relay's records are
// released (the fake counts them; the valgrind and sanitizer runs also see the module's own arrays).
#include <gtest/gtest.h>
#include <lua.hpp>

#include <stdlib.h>

#include "fake_control.h"

extern "C" int luaopen_update(lua_State* L);

namespace {

struct Budget {
    bool armed = false;
    long remaining = 0;
};

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

void scriptRelay() {
    FakeRelay_Reset();
    const ZOVRELAY_EntityItem components[3] = {{3, 4, 1, -1, -1, -1, {}}, {22, 2213, -1, -1, -1, -1, {}},
                                               {2, 1207960066, -1, -1, -1, -1, {}}};
    const FakeRelay_Product product = {{1, 1, -1, -1, -1, -1, {}}, components, 3, 3};
    for (const char* call : {"GetInformation", "Duplicate"}) FakeRelay_Script(call, 1, &product, 1, 1);
    FakeRelay_QueueEvent(1, 1, nullptr, 10, 5);
}

TEST(Exhaustion, EveryOperationReleasesWhereverMemoryRunsOut) {
    for (const char* scenario : kScenarios) {
        bool succeeded = false;
        for (long limit = 0; limit < 20000 && !succeeded; ++limit) {
            Budget budget;
            lua_State* L = lua_newstate(limitedAlloc, &budget);
            luaL_openlibs(L);
            luaopen_update(L);
            ASSERT_EQ(luaL_loadstring(L, scenario), LUA_OK);
            lua_insert(L, -2);
            ASSERT_EQ(lua_pcall(L, 1, 1, 0), LUA_OK);
            scriptRelay();
            budget.remaining = limit;
            budget.armed = true;
            succeeded = lua_pcall(L, 0, 0, 0) == LUA_OK;
            budget.armed = false;
            EXPECT_EQ(FakeRelay_OpenContexts(), 0) << scenario << " limit " << limit;
            EXPECT_EQ(FakeRelay_OutstandingRecords(), 0) << scenario << " limit " << limit;
            lua_close(L);
        }
        EXPECT_TRUE(succeeded) << scenario;
    }
}

}  // namespace
