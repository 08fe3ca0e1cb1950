// Entity tables: one per product or component, and the flat result table of a listing.
#include "entities/tables.h"

#include <limits.h>
#include <lua.hpp>

#include "entities/identifiers.h"
#include "entities/kinds.h"
#include "version/conversion.h"

namespace {

// The keys of an entity table, in the order they are set.
enum EntityKey { KLASS, TYPE, LANGUAGE, PLATFORM, REGION, OEM, VERSION, NAME, EXTRACT, FRIENDLY, KEY_COUNT };
const char* const kEntityKeys[KEY_COUNT] = {"klass", "type",    "language", "platform", "region",
                                            "oem",   "version", "name",     "extract",  "friendly"};

// Room for every key at once, so that no table is rehashed while it is filled.
const int kEntityTableSize = KEY_COUNT;

bool isHidden(const ZOVRELAY_EntityItem& item) {
    return item.language == -10 || item.platform == -10 || item.region == -10 || item.oem == -10;
}

/* [-0, +1]: pushes key k; keys is the stack index of the first of KEY_COUNT prepared keys, or 0 */
void pushKey(lua_State* L, int keys, int k) {
    if (keys != 0)
        lua_pushvalue(L, keys + k);
    else
        lua_pushstring(L, kEntityKeys[k]);
}

/* [-0, +1]: pushes the entity table or nil; a listing passes prepared keys so that the key strings
   are not interned again for every entity */
void pushEntity(lua_State* L, const ZOVRELAY_EntityItem& item, bool isProduct, int keys) {
    if (isHidden(item)) {
        lua_pushnil(L);
        return;
    }
    lua_createtable(L, 0, kEntityTableSize);
    const int32_t numbers[6] = {item.klass, item.type, item.language, item.platform, item.region, item.oem};
    for (int k = KLASS; k <= OEM; ++k) {
        pushKey(L, keys, k);
        lua_pushinteger(L, numbers[k]);
        lua_rawset(L, -3);
    }
    pushKey(L, keys, VERSION);
    ConvertVersionFormatKE2UI(L, item.klass, item.type, &item.version);
    lua_rawset(L, -3);
    pushKey(L, keys, NAME);
    if (isProduct)
        ProductToString(L, item);
    else
        ComponentToString(L, item);
    lua_rawset(L, -3);
    pushKey(L, keys, EXTRACT);
    EntityToString(L, item);
    lua_rawset(L, -3);
    if (const char* friendly = EntityFriendlyName(item)) {
        pushKey(L, keys, FRIENDLY);
        lua_pushstring(L, friendly);
        lua_rawset(L, -3);
    }
}

}  // namespace

void EntityToLua(lua_State* L, const ZOVRELAY_EntityItem& item, bool isProduct) { pushEntity(L, item, isProduct, 0); }

void ProductToLua(lua_State* L, const ZOVRELAY_EntityItem& item) { pushEntity(L, item, true, 0); }

void ComponentToLua(lua_State* L, const ZOVRELAY_EntityItem& item) { pushEntity(L, item, false, 0); }

void addFriendly(lua_State* L) {
    if (lua_isnil(L, -1)) return;
    lua_getfield(L, -1, "friendly");
    if (lua_isnil(L, -1)) {
        lua_pop(L, 1);
        return;
    }
    lua_pushvalue(L, -2);
    lua_settable(L, -5);
}

// Every product is followed by its components; a later entity with the same friendly name wins.
int InformationToLua(lua_State* L, const ZOVRELAY_Information* information) {
    unsigned long length = 0;
    unsigned long productCount = information != nullptr ? information->productCount : 0;
    for (unsigned long i = 0; i < productCount; ++i) {
        unsigned long step = information->products[i].componentCount + 1;
        length = step > ULONG_MAX - length ? ULONG_MAX : length + step;
    }
    // The keys go below the result table, so that addFriendly finds (result, index, entity) on top.
    int keys = lua_gettop(L) + 1;
    for (int k = 0; k < KEY_COUNT; ++k) lua_pushstring(L, kEntityKeys[k]);
    lua_createtable(L, length > INT_MAX ? INT_MAX : static_cast<int>(length), 0);
    int result = lua_gettop(L);

    lua_Integer index = 0;
    for (unsigned long i = 0; i < productCount; ++i) {
        const ZOVRELAY_Product& product = information->products[i];
        lua_pushinteger(L, ++index);
        pushEntity(L, product.entity, true, keys);
        addFriendly(L);
        lua_rawset(L, result);
        for (unsigned long j = 0; j < product.componentCount; ++j) {
            lua_pushinteger(L, ++index);
            pushEntity(L, product.components[j], false, keys);
            addFriendly(L);
            lua_rawset(L, result);
        }
    }
    lua_replace(L, keys);
    lua_settop(L, keys);
    return 1;
}

int l_tocomponent(lua_State* L) {
    ZOVRELAY_EntityItem item;
    if (const char* message = StringToComponent(L, 1, item)) return luaL_argerror(L, 1, message);
    ComponentToLua(L, item);
    return 1;
}

int l_toproduct(lua_State* L) {
    ZOVRELAY_EntityItem item;
    if (const char* message = StringToComponent(L, 1, item)) return luaL_argerror(L, 1, message);
    ProductToString(L, item);
    return 1;
}
