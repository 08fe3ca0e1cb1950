// removeke(path [, keep]): resets the repository's server.ini and deletes the package archives in
// packages/ that are not merged archives, unless the predicate keeps them.
#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include <lua.hpp>

#include "operations/operations.h"

namespace {

const char kEmptyIndex[] = "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n";
const char kMergedSuffix[] = "_merged.zip";

bool endsWith(const char* name, size_t length, const char* suffix) {
    size_t suffixLength = strlen(suffix);
    return length >= suffixLength && memcmp(name + length - suffixLength, suffix, suffixLength) == 0;
}

// At least as long as "_merged.zip", ends in ".zip" and not in "_merged.zip" (case matters).
bool isCandidate(const char* name) {
    size_t length = strlen(name);
    return length >= sizeof kMergedSuffix - 1 && endsWith(name, length, ".zip") &&
           !endsWith(name, length, kMergedSuffix);
}

/* [-0, +1]: io.open(name, mode) through the host's io library, unprotected */
void openIndex(lua_State* L, const char* name, const char* mode) {
    lua_getglobal(L, "io");
    lua_getfield(L, -1, "close");
    lua_getfield(L, -2, "open");
    lua_pushstring(L, name);
    lua_pushstring(L, mode);
    lua_call(L, 2, 1);
    // leaves io, io.close, handle
}

/* [-3, +0]: io.close(handle) for (io, io.close, handle) on top */
void closeIndex(lua_State* L) {
    lua_call(L, 1, 0);
    lua_pop(L, 1);
}

/* [-3, +1]: (packages path, keep or nil, DIR*) -> walks the directory; returns nothing useful */
int walkPackages(lua_State* L) {
    const char* packages = lua_tostring(L, 1);
    bool hasPredicate = lua_isfunction(L, 2);
    DIR* directory = static_cast<DIR*>(lua_touserdata(L, 3));
    int top = lua_gettop(L);
    // Each candidate is judged and removed before the next entry is read, so the predicate sees
    // every earlier deletion.
    while (struct dirent64* entry = readdir64(directory)) {
        if (!isCandidate(entry->d_name)) continue;
        const char* path = lua_pushfstring(L, "%s%s%s", packages, "/", entry->d_name);
        if (hasPredicate) {
            lua_pushvalue(L, 2);
            lua_pushvalue(L, -2);
            lua_pcall(L, 1, 1, 0);  // an error value stands for the answer: a message keeps the file
            if (lua_toboolean(L, -1)) {
                lua_settop(L, top);
                continue;
            }
        }
        remove(path);
        lua_settop(L, top);
    }
    return 0;
}

}  // namespace

int l_removeke(lua_State* L) {
    const char* path = lua_tolstring(L, 1, nullptr);
    if (path == nullptr) return luaL_argerror(L, 1, "expected repository path");
    if (!lua_isnoneornil(L, 2) && !lua_isfunction(L, 2)) return luaL_argerror(L, 2, "expected function");
    lua_settop(L, 2);

    // An empty path is no repository: it would name the working directory's files, and the relay
    // refuses it as a repository too. Others are joined with "/" unless they already end in one.
    size_t length = strlen(path);
    const char* separator = length != 0 && path[length - 1] == '/' ? "" : "/";
    const char* index = lua_pushfstring(L, "%s%sserver.ini", path, separator);  // 3

    if (length != 0) openIndex(L, index, "r");
    if (length == 0 || lua_isnil(L, -1)) {
        lua_pushnil(L);
        lua_pushfstring(L, "%s is not a repository", path);
        return 2;
    }
    closeIndex(L);

    openIndex(L, index, "w");
    if (!lua_isnil(L, -1)) {
        lua_getfield(L, -1, "write");
        lua_pushvalue(L, -2);
        lua_pushlstring(L, kEmptyIndex, sizeof kEmptyIndex - 1);
        lua_call(L, 2, 0);
        closeIndex(L);
    } else {
        lua_pop(L, 3);
    }

    const char* packages = lua_pushfstring(L, "%s%spackages", path, separator);  // 4
    DIR* directory = opendir(packages);
    if (directory != nullptr) {
        // The walk pushes strings and calls the predicate: protected, so the directory is always closed.
        lua_pushcfunction(L, walkPackages);
        lua_pushvalue(L, 4);
        lua_pushvalue(L, 2);
        lua_pushlightuserdata(L, directory);
        int failed = lua_pcall(L, 3, 0, 0);
        closedir(directory);
        if (failed) return lua_error(L);
    }
    lua_pushboolean(L, 1);
    return 1;
}
