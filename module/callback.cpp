// Relay events reach the script's handlers as event tables; the handler's answer goes back.
#include "module/module.h"

namespace {

/* [-3, +1]: (options, message, name) -> true when the relay should be answered 0 */
int dispatchEvent(lua_State* L) {
    const ZOVRELAY_EventMessage* message = static_cast<const ZOVRELAY_EventMessage*>(lua_touserdata(L, 2));
    const char* name = static_cast<const char*>(lua_touserdata(L, 3));
    lua_getfield(L, 1, name);
    if (!lua_isfunction(L, -1)) {
        lua_pushboolean(L, 0);
        return 1;
    }
    lua_newtable(L);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "type");
    if (message != nullptr) {
        lua_pushnumber(L, static_cast<lua_Number>(message->total));
        lua_setfield(L, -2, "total");
        lua_pushnumber(L, static_cast<lua_Number>(message->finished));
        lua_setfield(L, -2, "finished");
        if (message->information != nullptr) {
            pushstringWtoA(L, message->information);
            lua_setfield(L, -2, "information");
        }
    }
    // An error in the handler reaches the caller's protected call, its value standing for the answer.
    lua_call(L, 1, 1);
    return 1;
}

}  // namespace

// Runs inside the relay library: nothing here may raise outside the one protected call, which
// does both the handler lookup (the options table may have metamethods) and the call.
int Callback(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* message, void* userData) {
    lua_State* L = static_cast<lua_State*>(userData);
    int index = static_cast<int>(type);
    const char* name = index >= 0 && index < 6 && events[index] != nullptr ? events[index] : "unknown";
    int top = lua_gettop(L);
    if (!lua_checkstack(L, 4)) return 1;
    lua_pushcfunction(L, dispatchEvent);
    lua_pushvalue(L, 4);  // the options table: argument 4 of the running module function
    lua_pushlightuserdata(L, message);
    lua_pushlightuserdata(L, const_cast<char*>(name));
    lua_pcall(L, 3, 1, 0);
    int answer = lua_toboolean(L, -1) ? 0 : 1;
    lua_settop(L, top);
    return answer;
}
