// require "localrelay": the command's reach into the local relay beyond the relay interface, so
// that what the command shows comes from the relay itself rather than from a second copy of its
// rules. The module `update` never uses it and runs on any relay library; this one needs ours.
//
//   plan, results... = localrelay.run({plan = true, readback = false, keep = true}, fn, ...)
//       calls fn(...) (a module function such as update.patterns) with the calling thread's run
//       mode set: `plan`, the mirror plans and writes nothing (a dry run exact by construction);
//       `readback`, every held archive is read back in full. Answers the plan the mirror made as
//       JSON text (nil when none, or when `keep` is false: a large repository's plan costs more
//       to hand over than a quiet night), then fn's results; with `answer` false the mirror's
//       table of products is empty (the caller reads the report instead). An error in fn is
//       raised again as it was, after the mode is restored.
//   localrelay.message(status) the message of the calling thread's last failure in full, when
//       `status` is that failure (the module's message is cut to 63 characters), or nil
//   localrelay.stoponsignal()  SIGTERM and SIGINT ask the running operation to stop as a
//       cancelled one does (downloads kept for the next run to continue)
//   localrelay.stopped()       the name of the signal that asked, or nil
//   localrelay.isterminal(fd)  whether the descriptor is a terminal (for live progress)
//   localrelay.keys(signing, trusted)  the calling thread's later operations sign the repository's
//       catalogs with the PEM private key at path `signing` (nil: UPDATE_SIGNING_KEY's), and trust
//       the keys in `trusted` (text in the format of REPOSITORY/.trusted-keys) beside that file
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <lua.hpp>

#include "localrelay/api/extensions.h"

namespace {

volatile sig_atomic_t stoppedBy = 0;

void onSignal(int number) {
    stoppedBy = number;
    ZOVRELAY_LocalRequestStop();
}

/* [-0, +1]: a text the relay handed out (freed here), as a string, or nil */
void pushTaken(lua_State* L, char* text) {
    if (text == nullptr) {
        lua_pushnil(L);
        return;
    }
    // A failed push (no memory) raises: the text is freed first, through a copy on the stack.
    lua_pushlightuserdata(L, text);
    lua_pushcfunction(L, [](lua_State* S) -> int {
        lua_pushstring(S, static_cast<const char*>(lua_touserdata(S, 1)));
        return 1;
    });
    lua_pushvalue(L, -2);
    const int failed = lua_pcall(L, 1, 1, 0);
    ZOVRELAY_LocalFreeText(text);
    lua_remove(L, -2);
    if (failed) lua_error(L);
}

int flag(lua_State* L, const char* name, int absent = 0) {
    lua_getfield(L, 1, name);
    const int set = lua_isnil(L, -1) ? absent : lua_toboolean(L, -1);
    lua_pop(L, 1);
    return set;
}

/* [-(2+n), +(1+r)]: (modes, fn, ...) -> plan or nil, fn's results */
int l_run(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    luaL_checktype(L, 2, LUA_TFUNCTION);
    const int mode = (flag(L, "keep", 1) ? ZOVRELAY_LOCAL_KEEP_PLAN : 0) | (flag(L, "plan") ? ZOVRELAY_LOCAL_PLAN_ONLY : 0) |
                     (flag(L, "readback") ? ZOVRELAY_LOCAL_READ_BACK : 0) | (flag(L, "answer", 1) ? 0 : ZOVRELAY_LOCAL_NO_ANSWER);
    ZOVRELAY_LocalFreeText(ZOVRELAY_LocalTakePlan());  // a plan left by an earlier call is not this one's
    const int before = ZOVRELAY_LocalRunMode(mode);
    const int base = 1;  // results start above the modes table once fn and its arguments are consumed
    const int failed = lua_pcall(L, lua_gettop(L) - 2, LUA_MULTRET, 0);
    ZOVRELAY_LocalRunMode(before);
    if (failed) {
        ZOVRELAY_LocalFreeText(ZOVRELAY_LocalTakePlan());
        return lua_error(L);
    }
    const int results = lua_gettop(L) - base;
    pushTaken(L, ZOVRELAY_LocalTakePlan());
    lua_insert(L, base + 1);
    return results + 1;
}

/* [-1, +1]: (status) -> the whole message or nil */
int l_message(lua_State* L) {
    const int status = static_cast<int>(luaL_checkinteger(L, 1));
    pushTaken(L, ZOVRELAY_LocalLastMessage(status));
    return 1;
}

int l_stoponsignal(lua_State* L) {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (sigaction(SIGTERM, &action, nullptr) != 0 || sigaction(SIGINT, &action, nullptr) != 0)
        return luaL_error(L, "cannot catch SIGTERM and SIGINT");
    return 0;
}

int l_isterminal(lua_State* L) {
    lua_pushboolean(L, ::isatty(int(luaL_checkinteger(L, 1))));
    return 1;
}

int l_stopped(lua_State* L) {
    if (stoppedBy == 0) lua_pushnil(L);
    else lua_pushstring(L, stoppedBy == SIGINT ? "SIGINT" : "SIGTERM");
    return 1;
}

/* [-2, +0]: (signing path or nil, trusted-keys text or nil) */
int l_keys(lua_State* L) {
    const char* signing = luaL_optstring(L, 1, nullptr);
    const char* trusted = luaL_optstring(L, 2, nullptr);
    if (ZOVRELAY_LocalKeys(signing, trusted) != 0) return luaL_error(L, "not enough memory");
    return 0;
}

const luaL_Reg kFunctions[] = {
    {"keys", l_keys},
    {"run", l_run},
    {"message", l_message},
    {"stoponsignal", l_stoponsignal},
    {"stopped", l_stopped},
    {"isterminal", l_isterminal},
    {nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_localrelay(lua_State* L) {
    luaL_newlib(L, kFunctions);
    return 1;
}
