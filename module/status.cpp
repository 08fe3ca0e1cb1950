// The status triple and the narrow/wide conversions at the relay boundary.
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "module/module.h"

int dostatus(lua_State* L, ZOVRELAY_Status status) {
    if (status > 0)
        lua_pushboolean(L, 1);
    else
        lua_pushnil(L);
    lua_pushstatus(L, status);
    return 3;
}

void lua_pushstatus(lua_State* L, ZOVRELAY_Status status) {
    lua_pushinteger(L, status);
    // The library writes at most 64 characters, the terminator included; the first and last
    // characters are set so that a library writing nothing or too much still yields a string.
    wchar_t message[64];
    message[0] = 0;
    ZOVRELAY_GetStatusMessage(message, status);
    message[63] = 0;
    pushstringWtoA(L, message);
}

// Bytes widened by AtoW come back unchanged; true code points of 128 and above become "?".
void pushstringWtoA(lua_State* L, const wchar_t* text) {
    if (text == nullptr) {
        lua_pushnil(L);
        return;
    }
    size_t n = wcslen(text);
    luaL_Buffer buffer;
    char* out = luaL_buffinitsize(L, &buffer, n + 1);
    for (size_t i = 0; i < n; ++i) {
        int32_t c = text[i];
        out[i] = c < 128 ? static_cast<char>(c & 0xFF) : '?';
    }
    out[n] = 0;
    luaL_pushresultsize(&buffer, n);
}

// Each byte is sign-extended, so bytes 0x80-0xFF become 0xFFFFFF80-0xFFFFFFFF.
wchar_t* AtoW(const char* text) {
    if (text == nullptr) return nullptr;
    size_t n = strlen(text);
    wchar_t* wide = static_cast<wchar_t*>(malloc((n + 1) * sizeof(wchar_t)));
    if (wide == nullptr) return nullptr;
    for (size_t i = 0; i < n; ++i) wide[i] = static_cast<signed char>(text[i]);
    wide[n] = 0;
    return wide;
}
