// Relay contexts: one per repository operation, and the semaphore file removed after each.
#include <stdlib.h>
#include <unistd.h>

#include "module/module.h"

const char* const kSemaphoreFile = "/dev/shm/sem.zovrelay";

int CreateContext(lua_State* L, ZOVRELAY_Context*& context) {
    const char* path = lua_tolstring(L, 1, nullptr);
    if (path == nullptr) return luaL_argerror(L, 1, "expected repository path");
    context = nullptr;
    wchar_t* widePath = AtoW(path);
    ZOVRELAY_Status status = ZOVRELAY_CreateContext(&context, widePath);
    free(widePath);
    if (status > 0) return 0;
    context = nullptr;
    unlink(kSemaphoreFile);
    lua_pushnil(L);
    lua_pushstatus(L, status);
    return 3;
}

void DestroyContext(ZOVRELAY_Context*& context) {
    ZOVRELAY_DestroyContext(context);
    unlink(kSemaphoreFile);
    context = nullptr;
}
