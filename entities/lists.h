// Product and source lists: Lua arguments turned into relay arrays, and released again.
#ifndef UPDATE_ENTITIES_LISTS_H
#define UPDATE_ENTITIES_LISTS_H

#include "relay/zovrelay.h"

struct lua_State;

// Both return null on success or a static message. Neither raises by itself, but metamethods and
// memory errors may raise: the block is stored in *products / *sources as soon as it exists, so the
// caller can release it on every path.
const char* LuaToProducts(lua_State* L, int index, ZOVRELAY_Product** products, unsigned long& count);
const char* LuaToSources(lua_State* L, int index, ZOVRELAY_Source** sources, unsigned long& count);

void DestroyProducts(ZOVRELAY_Product* products, unsigned long count);
void DestroySources(ZOVRELAY_Source* sources, unsigned long count);

#endif
