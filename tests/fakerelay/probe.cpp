// updateprobe: a test-only Lua module that reaches module internals no Lua function exposes yet.
// probe.information() asks the fake relay for its next scripted listing and converts it the way
// the operations do: conversion protected, the record freed exactly once, the error re-raised.
#include <lua.hpp>

#include "entities/tables.h"
#include "relay/zovrelay.h"

namespace {

int convert(lua_State* L) {
    return InformationToLua(L, static_cast<const ZOVRELAY_Information*>(lua_touserdata(L, 1)));
}

/* [-0, +2]: the result table or nil, then the status */
int information(lua_State* L) {
    ZOVRELAY_Information* record = nullptr;
    ZOVRELAY_Status status = ZOVRELAY_GetInformation(nullptr, nullptr, 0, nullptr, 0, &record);
    if (status <= 0 || record == nullptr) {
        lua_pushnil(L);
        lua_pushinteger(L, status);
        return 2;
    }
    lua_pushcfunction(L, convert);
    lua_pushlightuserdata(L, record);
    int failed = lua_pcall(L, 1, 1, 0);
    ZOVRELAY_DestroyData(record);
    if (failed) return lua_error(L);
    lua_pushinteger(L, status);
    return 2;
}

const luaL_Reg functions[] = {{"information", information}, {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_updateprobe(lua_State* L) {
    luaL_newlib(L, functions);
    return 1;
}
