// fakerelay.so: the Lua face of the fake relay's C control interface, for busted tests running
// in the same process as update.so. A Lua error unwinds these frames with longjmp, so they hold
// only plain C data; buffers that must outlive a check live in userdata on the Lua stack.
#include <cmath>
#include <cstdint>
#include <cstring>

#include <lua.hpp>

#include "fake_control.h"

namespace {

const double kTwo63 = 9223372036854775808.0;
const double kTwo64 = 18446744073709551616.0;

/* [-0, +0]: reads 64 bits from an integral number (negatives wrap) or a decimal string, so that
 * values past 2^53 can be written exactly; answers 0 when the value is neither. */
int toBits(lua_State* L, int idx, uint64_t* out) {
    if (lua_type(L, idx) == LUA_TNUMBER) {
        lua_Number d = lua_tonumber(L, idx);
        if (d != std::floor(d) || d >= kTwo64 || d < -kTwo63) return 0; // NaN fails the first test
        *out = d >= 0 ? static_cast<uint64_t>(d) : static_cast<uint64_t>(static_cast<int64_t>(d));
        return 1;
    }
    if (lua_type(L, idx) != LUA_TSTRING) return 0;
    size_t length;
    const char* s = lua_tolstring(L, idx, &length);
    size_t i = length > 0 && s[0] == '-' ? 1 : 0;
    int negative = i == 1;
    if (i == length) return 0;
    uint64_t v = 0;
    for (; i < length; ++i) {
        if (s[i] < '0' || s[i] > '9') return 0;
        uint64_t digit = static_cast<uint64_t>(s[i] - '0');
        if (v > (UINT64_MAX - digit) / 10) return 0;
        v = v * 10 + digit;
    }
    if (negative && v > (UINT64_C(1) << 63)) return 0;
    *out = negative ? 0 - v : v;
    return 1;
}

int32_t low32(uint64_t bits) { return static_cast<int32_t>(static_cast<uint32_t>(bits)); }

/* [-0, +0]: the argument at idx as a 32-bit value (its low 32 bits); raises when not integral */
int32_t checkInt32(lua_State* L, int idx) {
    uint64_t bits;
    if (!toBits(L, idx, &bits)) luaL_argerror(L, idx, "integer or decimal string expected");
    return low32(bits);
}

/* [-0, +0]: reads the optional field key of the table at idx; keeps *out when the field is nil and
 * answers 0 when it is present but not an integer */
int optField(lua_State* L, int idx, const char* key, uint64_t* out) {
    lua_getfield(L, idx, key);
    int ok = lua_isnil(L, -1) || toBits(L, -1, out);
    lua_pop(L, 1);
    return ok;
}

const char* const kIdentity[] = {"klass", "type", "language", "platform", "region", "oem"};
const char* const kVersion[] = {"major", "minor", "build", "revision"};

/* [-0, +0]: raises the error of a malformed entity field */
void fieldError(lua_State* L, int product, int component, const char* field) {
    if (component)
        luaL_error(L, "product %d component %d: %s must be an integer or a decimal string", product, component, field);
    luaL_error(L, "product %d: %s must be an integer or a decimal string", product, field);
}

/* [-0, +0]: the entity table at idx (absolute) over the default entity; product and component
 * (1-based, 0 for the product itself) only name the culprit in an error */
void checkEntity(lua_State* L, int idx, int product, int component, ZOVRELAY_EntityItem* e) {
    *e = FakeRelay_DefaultEntity();
    int32_t* identity[] = {&e->klass, &e->type, &e->language, &e->platform, &e->region, &e->oem};
    unsigned long* version[] = {&e->version.major, &e->version.minor, &e->version.build, &e->version.revision};
    for (int i = 0; i < 6; ++i) {
        uint64_t bits = static_cast<uint64_t>(static_cast<int64_t>(*identity[i]));
        if (!optField(L, idx, kIdentity[i], &bits)) fieldError(L, product, component, kIdentity[i]);
        *identity[i] = low32(bits);
    }
    for (int i = 0; i < 4; ++i) {
        uint64_t bits = *version[i];
        if (!optField(L, idx, kVersion[i], &bits)) fieldError(L, product, component, kVersion[i]);
        *version[i] = bits;
    }
}

/* [-0, +1]: pushes a buffer with the code points of the string (one per byte) or array at idx and
 * returns it, or pushes nil and returns null when the value is nil */
const uint32_t* checkCodes(lua_State* L, int idx, size_t* length, const char* what) {
    *length = 0;
    if (lua_isnoneornil(L, idx)) {
        lua_pushnil(L);
        return nullptr;
    }
    if (lua_type(L, idx) == LUA_TSTRING) {
        size_t n;
        const unsigned char* s = reinterpret_cast<const unsigned char*>(lua_tolstring(L, idx, &n));
        uint32_t* codes = static_cast<uint32_t*>(lua_newuserdata(L, (n ? n : 1) * sizeof(uint32_t)));
        for (size_t i = 0; i < n; ++i) codes[i] = s[i];
        *length = n;
        return codes;
    }
    if (!lua_istable(L, idx)) luaL_error(L, "%s must be a string, an array of code points or nil", what);
    size_t n = lua_rawlen(L, idx);
    uint32_t* codes = static_cast<uint32_t*>(lua_newuserdata(L, (n ? n : 1) * sizeof(uint32_t)));
    for (size_t i = 0; i < n; ++i) {
        lua_rawgeti(L, idx, static_cast<int>(i + 1));
        uint64_t bits;
        if (!toBits(L, -1, &bits)) luaL_error(L, "%s[%d] must be an integer", what, static_cast<int>(i + 1));
        codes[i] = static_cast<uint32_t>(bits);
        lua_pop(L, 1);
    }
    *length = n;
    return codes;
}

/* [-0, +1]: pushes a log value as plain Lua data */
void pushValue(lua_State* L, const FakeRelay_Value* v) {
    luaL_checkstack(L, 4, "fakerelay: log too deep");
    size_t n = FakeRelay_Length(v);
    switch (FakeRelay_KindOf(v)) {
    case FAKERELAY_BOOLEAN: lua_pushboolean(L, FakeRelay_Boolean(v)); break;
    case FAKERELAY_INTEGER: lua_pushnumber(L, static_cast<lua_Number>(FakeRelay_Integer(v))); break;
    case FAKERELAY_UNSIGNED: lua_pushnumber(L, static_cast<lua_Number>(FakeRelay_Unsigned(v))); break;
    case FAKERELAY_TEXT: lua_pushlstring(L, FakeRelay_Text(v), n); break;
    case FAKERELAY_POINTER: lua_pushlightuserdata(L, FakeRelay_Pointer(v)); break;
    case FAKERELAY_CODES: {
        const uint32_t* codes = FakeRelay_Codes(v);
        lua_createtable(L, static_cast<int>(n), 0);
        for (size_t i = 0; i < n; ++i) {
            lua_pushnumber(L, codes[i]);
            lua_rawseti(L, -2, static_cast<int>(i + 1));
        }
        break;
    }
    case FAKERELAY_LIST:
        lua_createtable(L, static_cast<int>(n), 0);
        for (size_t i = 0; i < n; ++i) {
            pushValue(L, FakeRelay_Item(v, i));
            lua_rawseti(L, -2, static_cast<int>(i + 1));
        }
        break;
    case FAKERELAY_RECORD:
        lua_createtable(L, 0, static_cast<int>(n));
        for (size_t i = 0; i < n; ++i) {
            pushValue(L, FakeRelay_Item(v, i));
            lua_setfield(L, -2, FakeRelay_Key(v, i));
        }
        break;
    default: lua_pushnil(L); break;
    }
}

int reset(lua_State*) {
    FakeRelay_Reset();
    return 0;
}

int calls(lua_State* L) {
    size_t n = FakeRelay_CallCount();
    lua_createtable(L, static_cast<int>(n), 0);
    for (size_t i = 0; i < n; ++i) {
        pushValue(L, FakeRelay_Call(i));
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
    return 1;
}

/* fake.script(name, status [, { products = { product, ... } }]) */
int script(lua_State* L) {
    const char* name = luaL_checkstring(L, 1);
    ZOVRELAY_Status status = checkInt32(L, 2);
    if (lua_isnoneornil(L, 3)) {
        if (!FakeRelay_ScriptStatus(name, status)) return luaL_argerror(L, 1, "not a relay call");
        return 0;
    }
    luaL_checktype(L, 3, LUA_TTABLE);
    if (std::strcmp(name, "GetInformation") != 0 && std::strcmp(name, "Duplicate") != 0)
        return luaL_argerror(L, 1, "only GetInformation and Duplicate hand back a record");
    lua_settop(L, 3);
    lua_getfield(L, 3, "products"); // 4
    size_t productCount = 0;
    size_t componentTotal = 0;
    if (!lua_isnil(L, 4)) {
        if (!lua_istable(L, 4)) return luaL_error(L, "products must be an array");
        productCount = lua_rawlen(L, 4);
    }
    for (size_t i = 1; i <= productCount; ++i) {
        lua_rawgeti(L, 4, static_cast<int>(i));
        if (!lua_istable(L, -1)) return luaL_error(L, "product %d must be a table", static_cast<int>(i));
        lua_getfield(L, -1, "components");
        if (lua_istable(L, -1))
            componentTotal += lua_rawlen(L, -1);
        else if (!lua_isnil(L, -1))
            return luaL_error(L, "product %d: components must be an array", static_cast<int>(i));
        lua_pop(L, 2);
    }
    auto* products = static_cast<FakeRelay_CraftedProduct*>(
        lua_newuserdata(L, (productCount ? productCount : 1) * sizeof(FakeRelay_CraftedProduct))); // 5
    auto* components = static_cast<ZOVRELAY_EntityItem*>(
        lua_newuserdata(L, (componentTotal ? componentTotal : 1) * sizeof(ZOVRELAY_EntityItem))); // 6
    size_t used = 0;
    for (size_t i = 1; i <= productCount; ++i) {
        int p = static_cast<int>(i);
        FakeRelay_CraftedProduct* product = &products[i - 1];
        lua_rawgeti(L, 4, p); // 7
        checkEntity(L, 7, p, 0, &product->entity);
        lua_getfield(L, 7, "components"); // 8
        size_t count = lua_istable(L, 8) ? lua_rawlen(L, 8) : 0;
        if (count > componentTotal - used) return luaL_error(L, "product %d: components changed while read", p);
        for (size_t j = 1; j <= count; ++j) {
            lua_rawgeti(L, 8, static_cast<int>(j)); // 9
            if (!lua_istable(L, 9)) return luaL_error(L, "product %d component %d must be a table", p, static_cast<int>(j));
            checkEntity(L, 9, p, static_cast<int>(j), &components[used + j - 1]);
            lua_pop(L, 1);
        }
        product->components = count ? &components[used] : nullptr;
        product->componentCount = count;
        used += count;
        lua_getfield(L, 7, "componentCount"); // 9
        product->overrideCount = !lua_isnil(L, 9);
        uint64_t declared = count;
        if (product->overrideCount && !toBits(L, 9, &declared))
            return luaL_error(L, "product %d: componentCount must be an integer or a decimal string", p);
        product->declaredCount = declared;
        lua_pop(L, 3);
    }
    FakeRelay_ScriptInformation(name, status, products, productCount);
    return 0;
}

/* fake.event(type [, { information = text|nil, total = n, finished = n }]) */
int event(lua_State* L) {
    int32_t type = checkInt32(L, 1);
    if (lua_isnoneornil(L, 2)) {
        FakeRelay_QueueEvent(type, 0, nullptr, 0, 0, 0);
        return 0;
    }
    luaL_checktype(L, 2, LUA_TTABLE);
    lua_settop(L, 2);
    uint64_t total = 0;
    uint64_t finished = 0;
    if (!optField(L, 2, "total", &total)) return luaL_error(L, "total must be an integer or a decimal string");
    if (!optField(L, 2, "finished", &finished)) return luaL_error(L, "finished must be an integer or a decimal string");
    lua_getfield(L, 2, "information"); // 3
    size_t length;
    const uint32_t* information = checkCodes(L, 3, &length, "information");
    FakeRelay_QueueEvent(type, 1, information, length, total, finished);
    return 0;
}

/* fake.message(status, text|nil) */
int message(lua_State* L) {
    ZOVRELAY_Status status = checkInt32(L, 1);
    size_t length;
    const uint32_t* text = checkCodes(L, 2, &length, "text");
    FakeRelay_SetMessage(status, text, length);
    return 0;
}

/* fake.version({ major =, minor =, build =, revision = } | nil [, status]) */
int version(lua_State* L) {
    ZOV_Version v{0, 0, 0, 0};
    const ZOV_Version* given = nullptr;
    if (!lua_isnoneornil(L, 1)) {
        luaL_checktype(L, 1, LUA_TTABLE);
        unsigned long* fields[] = {&v.major, &v.minor, &v.build, &v.revision};
        for (int i = 0; i < 4; ++i) {
            uint64_t bits = 0;
            if (!optField(L, 1, kVersion[i], &bits))
                return luaL_error(L, "%s must be an integer or a decimal string", kVersion[i]);
            *fields[i] = bits;
        }
        given = &v;
    }
    ZOVRELAY_Status status = lua_isnoneornil(L, 2) ? 1 : checkInt32(L, 2);
    FakeRelay_SetVersion(given, status);
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

const luaL_Reg kFunctions[] = {{"reset", reset},     {"calls", calls},     {"script", script},
                               {"event", event},     {"message", message}, {"version", version},
                               {"counts", counts},   {nullptr, nullptr}};

} // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_fakerelay(lua_State* L) {
    luaL_newlib(L, kFunctions);
    return 1;
}
