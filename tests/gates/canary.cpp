// Deliberate faults for proving the gates: `require "canary"` from a test that the sanitizer and
// valgrind runs register as expected to fail.
#include <lua.hpp>
#include <stdlib.h>

namespace {

void* volatile sink;

int leak(lua_State*) {
    sink = malloc(64);
    sink = nullptr;  // the block is now unreachable
    return 0;
}

int overflow(lua_State*) {
    sink = malloc(8);  // through the volatile sink, so the compiler cannot drop the block
    volatile int index = 8;
    static_cast<char*>(sink)[index] = 1;  // one past the end
    free(sink);
    sink = nullptr;
    return 0;
}

const luaL_Reg functions[] = {{"leak", leak}, {"overflow", overflow}, {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_canary(lua_State* L) {
    luaL_newlib(L, functions);
    return 1;
}
