// The frame shared by list, everything, patterns, patternsExceptKerno and components: open a context,
// convert the arguments, apply the options, run one relay operation, return the status triple.
//
// Conversions and result building can raise (metamethods, memory) while the call holds a context
// and arrays, so they run inside lua_pcall; on an error everything is released and the same error
// value re-raised. The relay operation itself runs in the Lua function's own frame, where the
// event callback finds the options table at position 4.
#include <stdlib.h>

#include <lua.hpp>

#include "entities/lists.h"
#include "entities/tables.h"
#include "module/module.h"
#include "operations/operations.h"

namespace {

// What one call holds; plain data, so that a Lua error unwinding this frame destroys nothing.
struct Held {
    ZOVRELAY_Context* context;
    ZOVRELAY_Product* products;
    unsigned long productCount;
    ZOVRELAY_Source* sources;
    unsigned long sourceCount;
    ZOVRELAY_Product* names;
    unsigned long nameCount;
    int cleanupMode;
    bool withNames;  // argument 5 holds component names
};

void release(Held& held) {
    free(held.names);
    DestroySources(held.sources, held.sourceCount);
    DestroyProducts(held.products, held.productCount);
    DestroyContext(held.context);
    held.names = nullptr;
    held.sources = nullptr;
    held.products = nullptr;
}

/* [-6, +1]: arguments 1-5 and the Held; returns nil or the message of a rejected argument */
int convertArguments(lua_State* L) {
    Held& held = *static_cast<Held*>(lua_touserdata(L, 6));
    const char* message = LuaToProducts(L, 2, &held.products, held.productCount);
    if (message == nullptr) message = LuaToSources(L, 3, &held.sources, held.sourceCount);
    if (message == nullptr) message = ContextOptions(L, held.context, held.cleanupMode);
    if (message == nullptr && held.withNames && !lua_isnoneornil(L, 5))
        message = LuaToProducts(L, 5, &held.names, held.nameCount);
    if (message == nullptr) return 0;
    lua_pushstring(L, message);
    return 1;
}

/* [-1, +1] */
int convertInformation(lua_State* L) {
    return InformationToLua(L, static_cast<const ZOVRELAY_Information*>(lua_touserdata(L, 1)));
}

/* [-0, +0 or +3]: 0 with everything converted, or 3 when the context was refused; raises a
   rejected argument after releasing what was acquired */
int acquire(lua_State* L, Held& held) {
    lua_settop(L, 5);  // arguments 1-5 in place, absent ones nil, before anything is pushed above them
    if (int results = CreateContext(L, held.context)) return results;
    lua_pushcfunction(L, convertArguments);
    for (int i = 1; i <= 5; ++i) lua_pushvalue(L, i);
    lua_pushlightuserdata(L, &held);
    if (lua_pcall(L, 6, 1, 0) != LUA_OK) {
        release(held);
        return lua_error(L);
    }
    if (!lua_isnil(L, -1)) {
        release(held);
        return luaL_error(L, "%s", lua_tostring(L, -1));
    }
    lua_pop(L, 1);
    return 0;
}

/* [-0, +3]: the result table or nil, the status and its message; releases everything */
void finish(lua_State* L, Held& held, ZOVRELAY_Status status, ZOVRELAY_Information* information) {
    if (status > 0 && information != nullptr) {
        lua_pushcfunction(L, convertInformation);
        lua_pushlightuserdata(L, information);
        int failed = lua_pcall(L, 1, 1, 0);
        ZOVRELAY_DestroyData(information);
        if (failed) {
            release(held);
            lua_error(L);
        }
    } else {
        lua_pushnil(L);
    }
    release(held);
    lua_pushstatus(L, status);
}

/* [-3, +0]: (repository, options, mode) -> removeke(repository [, options.removeke]); the option
   is read here, inside the protected call, because its lookup may raise too */
int cleanUpProtected(lua_State* L) {
    int mode = static_cast<int>(lua_tointeger(L, 3));
    lua_pushcfunction(L, l_removeke);
    lua_pushvalue(L, 1);
    if (mode == 2) lua_getfield(L, 2, "removeke");
    lua_call(L, mode, 0);
    return 0;
}

/* [-0, +0 or +1]: removeke on the repository, protected; the caller drops what it leaves */
void cleanUp(lua_State* L, int cleanupMode) {
    lua_pushcfunction(L, cleanUpProtected);
    lua_pushvalue(L, 1);
    lua_pushvalue(L, 4);
    lua_pushinteger(L, cleanupMode);
    lua_pcall(L, 3, 0, 0);
}

}  // namespace

int l_function(lua_State* L, RelayOperation operation, int listFlag) {
    Held held = {nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 1, false};
    if (int results = acquire(L, held)) return results;
    ZOVRELAY_Information* information = nullptr;
    ZOVRELAY_Status status =
        operation(held.context, held.products, held.productCount, held.sources, held.sourceCount, &information);
    finish(L, held, status, information);
    if (listFlag == 0 && held.cleanupMode >= 1) {
        int top = lua_gettop(L);
        cleanUp(L, held.cleanupMode);
        lua_settop(L, top);
    }
    return 3;
}

int l_list(lua_State* L) { return l_function(L, ZOVRELAY_GetInformation, 1); }
int l_everything(lua_State* L) { return l_function(L, ZOVRELAY_Duplicate, 0); }
int l_patterns(lua_State* L) { return l_function(L, PatternOnly, 0); }
int l_patternsExceptKerno(lua_State* L) { return l_function(L, PatternOnlyNoKerno, 0); }

// Mirrors only the components whose class and type a name in argument 5 gives; no clean-up.
int l_components(lua_State* L) {
    Held held = {nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 1, true};
    if (int results = acquire(L, held)) return results;
    ZOVRELAY_Information* information = nullptr;
    ZOVRELAY_Status status = filterAndDownload(onlyNamedComponents, held.context, held.products, held.productCount,
                                               held.sources, held.sourceCount, &information, held.names,
                                               held.nameCount);
    finish(L, held, status, information);
    return 3;
}
