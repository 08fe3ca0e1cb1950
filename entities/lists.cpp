// Product lists read raw; source lists honour __len, and each source may carry a proxy.
#include "entities/lists.h"

#include <limits.h>
#include <stdlib.h>

#include <lua.hpp>

#include "entities/identifiers.h"
#include "module/module.h"

namespace {

/* [-0, +0]: AtoW of the value at index read as a string; null when it is neither string nor number */
wchar_t* wideField(lua_State* L, int index) { return AtoW(lua_tolstring(L, index, nullptr)); }

// Truncated toward zero to 32 bits, kept in the low 16; NaN, infinities and values outside the
// 32-bit range give 0, as a non-number does.
uint16_t portOf(lua_State* L, int index) {
    int isNumber = 0;
    lua_Number value = lua_tonumberx(L, index, &isNumber);
    if (!isNumber || !(value > -2147483649.0 && value < 2147483648.0)) return 0;
    return static_cast<uint16_t>(static_cast<uint32_t>(static_cast<int32_t>(value)));
}

/* [-0, +0]: fills proxy from the table at index */
void readProxy(lua_State* L, int index, ZOVRELAY_Proxy& proxy) {
    int top = lua_gettop(L);
    lua_getfield(L, index, "type");
    lua_getfield(L, index, "host");
    lua_getfield(L, index, "user");
    lua_getfield(L, index, "password");
    lua_getfield(L, index, "port");
    proxy.type = lua_tonumberx(L, top + 1, nullptr) == 0 ? 0 : 1;
    proxy.host = wideField(L, top + 2);
    proxy.user = wideField(L, top + 3);
    proxy.password = wideField(L, top + 4);
    proxy.port = portOf(L, top + 5);
    lua_settop(L, top);
}

}  // namespace

const char* LuaToProducts(lua_State* L, int index, ZOVRELAY_Product** products, unsigned long& count) {
    *products = nullptr;
    count = 0;
    if (lua_istable(L, index)) {
        size_t n = lua_rawlen(L, index);
        if (n > INT_MAX) return "can't allocate product";  // elements are addressed by int
        ZOVRELAY_Product* block = static_cast<ZOVRELAY_Product*>(calloc(n != 0 ? n : 1, sizeof(ZOVRELAY_Product)));
        if (block == nullptr) return "can't allocate product";
        *products = block;
        count = n;
        for (size_t i = 0; i < n; ++i) {
            lua_rawgeti(L, index, static_cast<int>(i + 1));
            if (const char* message = StringToProduct(L, -1, block[i])) {
                free(block);
                *products = nullptr;
                count = 0;
                return message;  // the element stays pushed: the message may describe it
            }
            lua_pop(L, 1);
        }
        return nullptr;
    }
    if (lua_isstring(L, index)) {
        ZOVRELAY_Product* block = static_cast<ZOVRELAY_Product*>(calloc(1, sizeof(ZOVRELAY_Product)));
        if (block == nullptr) return "can't allocate product";
        *products = block;
        count = 1;
        if (const char* message = StringToProduct(L, index, *block)) {
            free(block);
            *products = nullptr;
            count = 0;
            return message;
        }
        return nullptr;
    }
    return "expected products";
}

const char* LuaToSources(lua_State* L, int index, ZOVRELAY_Source** sources, unsigned long& count) {
    *sources = nullptr;
    count = 0;
    if (lua_isnoneornil(L, index)) return nullptr;
    if (lua_isstring(L, index)) {
        ZOVRELAY_Source* source = static_cast<ZOVRELAY_Source*>(calloc(1, sizeof(ZOVRELAY_Source)));
        if (source == nullptr) return "can't allocate source";
        *sources = source;
        count = 1;
        source->url = wideField(L, index);
        return nullptr;
    }
    if (!lua_istable(L, index)) return "expected sources";

    // One zero-filled block: n sources, then n proxies; source i points at proxy i when it has one.
    int n = luaL_len(L, index);
    if (n == 0) return nullptr;
    if (n < 0) return "can't allocate source";
    size_t records = static_cast<size_t>(n);
    void* block = calloc(records, sizeof(ZOVRELAY_Source) + sizeof(ZOVRELAY_Proxy));
    if (block == nullptr) return "can't allocate source";
    ZOVRELAY_Source* list = static_cast<ZOVRELAY_Source*>(block);
    ZOVRELAY_Proxy* proxies = reinterpret_cast<ZOVRELAY_Proxy*>(list + records);
    *sources = list;
    count = records;

    for (size_t i = 0; i < records; ++i) {
        int top = lua_gettop(L);
        lua_rawgeti(L, index, static_cast<int>(i + 1));
        if (lua_istable(L, -1)) {
            lua_getfield(L, top + 1, "url");
            lua_getfield(L, top + 1, "proxy");
            list[i].url = wideField(L, top + 2);
            if (lua_istable(L, top + 3)) {
                // Linked before it is filled, so DestroySources frees what a raising conversion leaves.
                list[i].proxy = &proxies[i];
                readProxy(L, top + 3, proxies[i]);
            }
        }
        lua_settop(L, top);
    }
    return nullptr;
}

void DestroyProducts(ZOVRELAY_Product* products, unsigned long) { free(products); }

void DestroySources(ZOVRELAY_Source* sources, unsigned long count) {
    if (sources != nullptr) {
        for (unsigned long i = 0; i < count; ++i) {
            free(sources[i].url);
            if (ZOVRELAY_Proxy* proxy = sources[i].proxy) {
                free(proxy->host);
                free(proxy->user);
                free(proxy->password);
            }
        }
    }
    free(sources);
}
