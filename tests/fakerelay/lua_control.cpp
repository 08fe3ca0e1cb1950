// fakerelay.so: `require "fakerelay"`, the busted tests' face of fake_control.h. A Lua error
// unwinds these frames, so they hold plain data only; arrays live in userdata on the Lua stack.
#include <stdlib.h>

#include <lua.hpp>

#include "fake_control.h"

namespace {

// 64 bits from a number (negatives wrap) or a decimal string, for values past 2^53.
uint64_t bits(lua_State* L, int index, uint64_t otherwise) {
    if (lua_type(L, index) == LUA_TSTRING) return strtoull(lua_tostring(L, index), nullptr, 10);
    if (lua_type(L, index) != LUA_TNUMBER) return otherwise;
    const lua_Number value = lua_tonumber(L, index);
    return value < 0 ? static_cast<uint64_t>(static_cast<int64_t>(value)) : static_cast<uint64_t>(value);
}

uint64_t field(lua_State* L, int table, const char* key, uint64_t otherwise) {
    lua_getfield(L, table, key);
    const uint64_t value = bits(L, -1, otherwise);
    lua_pop(L, 1);
    return value;
}

/* [-0, +0]: the entity fields of the table at index; absent ones 0, or -1 for the four below class and type */
ZOVRELAY_EntityItem entity(lua_State* L, int index) {
    const uint64_t none = ~0ull;
    return ZOVRELAY_EntityItem{
        static_cast<int32_t>(field(L, index, "klass", 0)),      static_cast<int32_t>(field(L, index, "type", 0)),
        static_cast<int32_t>(field(L, index, "language", none)), static_cast<int32_t>(field(L, index, "platform", none)),
        static_cast<int32_t>(field(L, index, "region", none)),   static_cast<int32_t>(field(L, index, "oem", none)),
        {field(L, index, "major", 0), field(L, index, "minor", 0), field(L, index, "build", 0),
         field(L, index, "revision", 0)}};
}

/* [-0, +1]: the string (one code point a byte) or array of code points at index as a terminated
   wide string in a userdata; null when nil */
const wchar_t* wide(lua_State* L, int index) {
    if (lua_isnoneornil(L, index)) {
        lua_pushnil(L);
        return nullptr;
    }
    const bool text = lua_type(L, index) == LUA_TSTRING;
    const size_t n = lua_rawlen(L, index);
    wchar_t* out = static_cast<wchar_t*>(lua_newuserdata(L, (n + 1) * sizeof(wchar_t)));
    for (size_t i = 0; i < n; ++i) {
        if (text) {
            out[i] = static_cast<unsigned char>(lua_tostring(L, index)[i]);
        } else {
            lua_rawgeti(L, index, static_cast<int>(i + 1));
            out[i] = static_cast<wchar_t>(bits(L, -1, 0));
            lua_pop(L, 1);
        }
    }
    out[n] = 0;
    return out;
}

// script(name, status [, {products = {product, ...}}]): a product is an entity with components
// = {entity, ...} and optionally componentCount, the count the record then declares.
int script(lua_State* L) {
    const char* name = luaL_checkstring(L, 1);
    const ZOVRELAY_Status status = static_cast<ZOVRELAY_Status>(bits(L, 2, 1));
    if (!lua_istable(L, 3)) {
        FakeRelay_Script(name, status, nullptr, 0, 0);
        return 0;
    }
    lua_getfield(L, 3, "products");  // 4
    const size_t n = lua_istable(L, 4) ? lua_rawlen(L, 4) : 0;
    luaL_checkstack(L, static_cast<int>(n) + 8, "too many products");
    FakeRelay_Product* products = static_cast<FakeRelay_Product*>(lua_newuserdata(L, (n + 1) * sizeof(FakeRelay_Product)));
    for (size_t i = 0; i < n; ++i) {
        lua_rawgeti(L, 4, static_cast<int>(i + 1));
        const int product = lua_gettop(L);
        lua_getfield(L, product, "components");
        const size_t count = lua_istable(L, -1) ? lua_rawlen(L, -1) : 0;
        ZOVRELAY_EntityItem* components =
            static_cast<ZOVRELAY_EntityItem*>(lua_newuserdata(L, (count + 1) * sizeof(ZOVRELAY_EntityItem)));
        for (size_t j = 0; j < count; ++j) {
            lua_rawgeti(L, product + 1, static_cast<int>(j + 1));
            components[j] = entity(L, lua_gettop(L));
            lua_pop(L, 1);
        }
        products[i] = {entity(L, product), components, count, field(L, product, "componentCount", count)};
        lua_replace(L, product);  // keeps the components' userdata alive until the call below
        lua_pop(L, 1);
    }
    FakeRelay_Script(name, status, products, n, 1);
    return 0;
}

// event(type [, {information = string | code points, total = n, finished = n}])
int event(lua_State* L) {
    const int32_t type = static_cast<int32_t>(bits(L, 1, 0));
    if (!lua_istable(L, 2)) {
        FakeRelay_QueueEvent(type, 0, nullptr, 0, 0);
        return 0;
    }
    lua_getfield(L, 2, "information");
    FakeRelay_QueueEvent(type, 1, wide(L, 3), field(L, 2, "total", 0), field(L, 2, "finished", 0));
    return 0;
}

// message(status, text | code points | nil)
int message(lua_State* L) {
    FakeRelay_SetMessage(static_cast<ZOVRELAY_Status>(bits(L, 1, 0)), wide(L, 2));
    return 0;
}

// version({major =, minor =, build =, revision =} | nil [, status = 1])
int version(lua_State* L) {
    ZOV_Version v = {0, 0, 0, 0};
    if (lua_istable(L, 1))
        v = {field(L, 1, "major", 0), field(L, 1, "minor", 0), field(L, 1, "build", 0), field(L, 1, "revision", 0)};
    FakeRelay_SetVersion(lua_istable(L, 1) ? &v : nullptr, static_cast<ZOVRELAY_Status>(bits(L, 2, 1)));
    return 0;
}

int reset(lua_State*) {
    FakeRelay_Reset();
    return 0;
}

int counts(lua_State* L) {
    lua_createtable(L, 0, 2);
    lua_pushinteger(L, FakeRelay_OpenContexts());
    lua_setfield(L, -2, "contexts");
    lua_pushinteger(L, FakeRelay_OutstandingRecords());
    lua_setfield(L, -2, "records");
    return 1;
}

// calls(): the log, an array of tables with `name` and the call's decoded arguments.
int calls(lua_State* L) {
    lua_newtable(L);
    for (size_t i = 0; const char* entry = FakeRelay_Call(i); ++i) {
        lua_pushfstring(L, "return %s", entry);
        if (luaL_loadstring(L, lua_tostring(L, -1)) != LUA_OK) return lua_error(L);
        lua_call(L, 0, 1);
        lua_rawseti(L, -3, static_cast<int>(i + 1));
        lua_pop(L, 1);
    }
    return 1;
}

const luaL_Reg kFunctions[] = {{"reset", reset},   {"script", script}, {"event", event}, {"message", message},
                               {"version", version}, {"counts", counts}, {"calls", calls}, {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_fakerelay(lua_State* L) {
    luaL_newlib(L, kFunctions);
    return 1;
}
