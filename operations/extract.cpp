// extract(repository, component, destination): one component written out of a repository.
#include <stdlib.h>

#include <lua.hpp>

#include "entities/identifiers.h"
#include "module/module.h"
#include "operations/operations.h"

// Arguments are checked from the last to the first, and all before the context exists, so an
// argument error never has anything to release.
int l_extract(lua_State* L) {
    const char* destination = lua_tolstring(L, 3, nullptr);
    if (destination == nullptr) return luaL_argerror(L, 3, "expected destination directory");
    if (lua_istable(L, 2)) {
        lua_getfield(L, 2, "extract");
        lua_replace(L, 2);
    }
    ZOVRELAY_EntityItem item;
    if (const char* message = StringToComponent(L, 2, item)) return luaL_argerror(L, 2, message);
    ZOVRELAY_Context* context = nullptr;
    if (int results = CreateContext(L, context)) return results;

    wchar_t* wideDestination = AtoW(destination);
    ZOVRELAY_Status status = ZOVRELAY_ExportComponent(context, wideDestination, item);
    free(wideDestination);
    DestroyContext(context);
    return dostatus(L, status);
}
