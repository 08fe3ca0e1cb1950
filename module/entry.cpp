// The Lua entry point and the module's function table.
#include "entities/tables.h"
#include "module/module.h"
#include "operations/operations.h"

namespace {

// Set once the first open has started the relay library; never reset, not even by shutdown().
int startup = 0;

// Registered in this order.
const luaL_Reg r_update[] = {
    {"startup", l_startup},
    {"shutdown", l_shutdown},
    {"version", l_version},
    {"tocomponent", l_tocomponent},
    {"toproduct", l_toproduct},
    {"extract", l_extract},
    {"removeke", l_removeke},
    {"list", l_list},
    {"everything", l_everything},
    {"patterns", l_patterns},
    {"patternsExceptKerno", l_patternsExceptKerno},
    {"components", l_components},
    {"ok", l_ok},
    {nullptr, nullptr},
};

}  // namespace

const char* const events[6] = {"download", "progress", "removebegin", "removefailed", "downloadbegin", "downloadend"};

extern "C" __attribute__((visibility("default"))) int luaopen_update(lua_State* L) {
    if (startup == 0) {
        ZOVRELAY_Startup(nullptr);  // its state shows in later statuses and in startup()
        startup = 1;
    }
    lua_createtable(L, 0, 13);
    luaL_setfuncs(L, r_update, 0);
    return 1;
}

int l_startup(lua_State* L) {
    ZOVRELAY_Status status = ZOVRELAY_Startup(nullptr);
    return dostatus(L, status);
}

int l_shutdown(lua_State* L) {
    ZOVRELAY_Status status = ZOVRELAY_Shutdown();
    return dostatus(L, status);
}

int l_version(lua_State* L) {
    ZOV_Version version = {0, 0, 0, 0};
    ZOVRELAY_Status status = ZOVRELAY_GetVersion(&version);
    if (status <= 0) {
        lua_pushnil(L);
        lua_pushstatus(L, status);
        return 3;
    }
    lua_createtable(L, 0, 5);
    lua_pushinteger(L, static_cast<lua_Integer>(version.major));
    lua_setfield(L, -2, "major");
    lua_pushinteger(L, static_cast<lua_Integer>(version.minor));
    lua_setfield(L, -2, "minor");
    lua_pushinteger(L, static_cast<lua_Integer>(version.build));
    lua_setfield(L, -2, "build");
    lua_pushinteger(L, static_cast<lua_Integer>(version.revision));
    lua_setfield(L, -2, "revision");
    // Each part as a 32-bit signed int, as %d reads it; the revision is not shown.
    lua_pushfstring(L, "%d.%d.%d", static_cast<int>(static_cast<uint32_t>(version.major)),
                    static_cast<int>(static_cast<uint32_t>(version.minor)),
                    static_cast<int>(static_cast<uint32_t>(version.build)));
    lua_setfield(L, -2, "string");
    lua_pushstatus(L, status);
    return 3;
}

// Success is judged on the low 32 bits, read as the relay's signed status.
int l_ok(lua_State* L) {
    int converted = 0;
    lua_Integer value = lua_isnumber(L, 1) ? lua_tointegerx(L, 1, &converted) : 0;
    lua_pushboolean(L, converted && static_cast<int32_t>(static_cast<uint32_t>(value)) > 0);
    return 1;
}
