// The options table of a repository operation: relay options, event handlers, clean-up mode.
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "module/module.h"

namespace {

struct RelayOption {
    char kind;  // 'i' integer, 'b' boolean, 's' string
    const char* name;
    int id;  // the relay's option number
};

const RelayOption kRelayOptions[] = {
    {'i', "maxbandwidth", 0},
    {'b', "buildpatch", 9},
    {'i', "maxmerge", 10},
    {'i', "diffcount", 11},
    {'i', "keepcount", 12},
    {'i', "httpslevel", 15},
    {'b', "enable_check_file_type_blacklist", 23},
    {'s', "file_type_blacklist", 22},
    // The local relay's own: the time a source may take (another relay refuses the numbers).
    {'i', "lowspeedlimit", 1000},
    {'i', "lowspeedtime", 1001},
    {'i', "catalogtimeout", 1002},
};

wchar_t kEmptyWide[1] = {0};

// Decodes in the current C locale; a value that does not decode, or no memory, gives "".
wchar_t* decodeLocale(const char* text) {
    mbstate_t state;
    memset(&state, 0, sizeof state);
    const char* source = text;
    size_t length = mbsrtowcs(nullptr, &source, 0, &state);
    if (length == static_cast<size_t>(-1)) return kEmptyWide;
    wchar_t* wide = static_cast<wchar_t*>(malloc((length + 1) * sizeof(wchar_t)));
    if (wide == nullptr) return kEmptyWide;
    memset(&state, 0, sizeof state);
    source = text;
    mbsrtowcs(wide, &source, length + 1, &state);
    wide[length] = 0;
    return wide;
}

/* [-0, +0 or +1]: applies one relay option from the value on top; null or the message */
const char* applyRelayOption(lua_State* L, ZOVRELAY_Context* context, const RelayOption& option, const char* key) {
    switch (option.kind) {
        case 'i': {
            int isInteger = 0;
            lua_Integer value = lua_tointegerx(L, -1, &isInteger);
            if (!isInteger) return lua_pushfstring(L, "%s must be a integer", key);
            ZOVRELAY_SetOption(context, option.id, value);
            return nullptr;
        }
        case 'b':
            if (lua_type(L, -1) != LUA_TBOOLEAN) return lua_pushfstring(L, "%s must be a boolean", key);
            ZOVRELAY_SetOption(context, option.id, lua_toboolean(L, -1) ? 1 : 0);
            return nullptr;
        default: {
            if (!lua_isstring(L, -1)) return lua_pushfstring(L, "%s must be a string", key);
            wchar_t* wide = decodeLocale(lua_tostring(L, -1));
            ZOVRELAY_SetStringOption(context, option.id, wide);
            if (wide != kEmptyWide) free(wide);
            return nullptr;
        }
    }
}

/* [-0, +0 or +1]: applies the pair (key copy at -2, value at -1); null or the message */
const char* applyEntry(lua_State* L, ZOVRELAY_Context* context, const char* key, int& cleanupMode) {
    for (int type = 0; type < 6; ++type) {
        if (strcmp(key, events[type]) != 0) continue;
        if (!lua_isfunction(L, -1)) return lua_pushfstring(L, "%s must be a function", key);
        ZOVRELAY_SubscribeEvent(context, static_cast<ZOVRELAY_EventType>(type), Callback, L);
        return nullptr;
    }
    for (const RelayOption& option : kRelayOptions) {
        if (strcmp(key, option.name) == 0) return applyRelayOption(L, context, option, key);
    }
    // "ke" and "removeke" combine the same way whichever the traversal meets first.
    if (strcmp(key, "ke") == 0) {
        if (!lua_isboolean(L, -1)) return "ke must be boolean";
        cleanupMode = lua_toboolean(L, -1) ? 0 : abs(cleanupMode);
        return nullptr;
    }
    if (strcmp(key, "removeke") == 0) {
        if (!lua_isfunction(L, -1)) return "removeke must be a function";
        cleanupMode = cleanupMode == 0 ? -2 : 2;
        return nullptr;
    }
    if (strcmp(key, "unknown") == 0) return lua_isfunction(L, -1) ? nullptr : "unknown must be a function";
    return lua_pushfstring(L, "%s is not a valid option", key);
}

}  // namespace

const char* ContextOptions(lua_State* L, ZOVRELAY_Context* context, int& cleanupMode) {
    if (lua_type(L, 4) <= 0) return nullptr;
    if (!lua_istable(L, 4)) return "not a table of options";
    lua_pushnil(L);
    while (lua_next(L, 4) != 0) {
        // The key is read as a string from a copy: converting the key itself would break lua_next.
        lua_pushvalue(L, -2);
        lua_insert(L, -2);
        const char* key = lua_isstring(L, -2) ? lua_tostring(L, -2) : nullptr;
        if (key == nullptr) return "options must be named";
        if (const char* message = applyEntry(L, context, key, cleanupMode)) return message;
        lua_pop(L, 2);
    }
    return nullptr;
}
