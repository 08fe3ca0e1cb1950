// Entity tables and result tables handed to scripts.
#ifndef UPDATE_ENTITIES_TABLES_H
#define UPDATE_ENTITIES_TABLES_H

#include "relay/zovrelay.h"

struct lua_State;

/* [-0, +1]: pushes the entity table, or nil for an entity marked -10 */
void EntityToLua(lua_State* L, const ZOVRELAY_EntityItem& item, bool isProduct);
/* [-0, +1] */
void ProductToLua(lua_State* L, const ZOVRELAY_EntityItem& item);
/* [-0, +1] */
void ComponentToLua(lua_State* L, const ZOVRELAY_EntityItem& item);
/* [-0, +1]: pushes the flat result table; returns 1. Never frees the record. */
int InformationToLua(lua_State* L, const ZOVRELAY_Information* information);
/* [-0, +0]: with (result, index, entity) on top, stores entity under its friendly name */
void addFriendly(lua_State* L);

int l_tocomponent(lua_State* L);
int l_toproduct(lua_State* L);

#endif
