// Repository operations: the driver, the selection filters and the Lua functions built on them.
#ifndef UPDATE_OPERATIONS_OPERATIONS_H
#define UPDATE_OPERATIONS_OPERATIONS_H

#include <stddef.h>

#include "relay/zovrelay.h"

struct lua_State;

// Keeps a component (non-zero) or drops it, judged by its class and type.
typedef int (*SelectionFilter)(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product* names, size_t nameCount);

int onlyPatterns(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product* names, size_t nameCount);
int onlyPatternsNoKerno(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product* names, size_t nameCount);
int onlyNamedComponents(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product* names, size_t nameCount);

// Lists the products, keeps the components the filter accepts, and mirrors exactly those. The
// filtered list is written over `products` (the caller's array, built from Lua) when it fits.
ZOVRELAY_Status filterAndDownload(SelectionFilter filter, ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                  size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                                  ZOVRELAY_Information** information, const ZOVRELAY_Product* names, size_t nameCount);
ZOVRELAY_Status PatternOnly(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                            const ZOVRELAY_Source* sources, size_t sourceCount, ZOVRELAY_Information** information);
ZOVRELAY_Status PatternOnlyNoKerno(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                                   const ZOVRELAY_Source* sources, size_t sourceCount,
                                   ZOVRELAY_Information** information);

// The status the module makes up when it cannot allocate a filtered operation's working buffer.
const ZOVRELAY_Status kModuleOutOfMemory = -4;

int l_function(lua_State* L, RelayOperation operation, int listFlag);
int l_list(lua_State* L);
int l_everything(lua_State* L);
int l_patterns(lua_State* L);
int l_patternsExceptKerno(lua_State* L);
int l_components(lua_State* L);
int l_extract(lua_State* L);
int l_removeke(lua_State* L);

#endif
