// The module frame: status triple, narrow/wide strings, relay contexts, and the Lua functions
// that manage the relay library itself.
#ifndef UPDATE_MODULE_MODULE_H
#define UPDATE_MODULE_MODULE_H

#include <lua.hpp>

#include "relay/zovrelay.h"

// Event names by ZOVRELAY_EventType value.
extern const char* const events[6];

// The file by which glibc represents the relay library's named semaphore.
extern const char* const kSemaphoreFile;

/* [-0, +3]: pushes true or nil, the status and its message; returns 3 */
int dostatus(lua_State* L, ZOVRELAY_Status status);
/* [-0, +2]: pushes the status and its message */
void lua_pushstatus(lua_State* L, ZOVRELAY_Status status);
/* [-0, +1]: pushes the narrowed string, or nil for a null text */
void pushstringWtoA(lua_State* L, const wchar_t* text);
// A malloc'ed wide copy (bytes sign-extended), or null for a null text or a failed allocation.
wchar_t* AtoW(const char* text);

/* [-0, +0 or +3]: 0 with a new context, or 3 with nil, status, message pushed; raises on a bad
   argument 1 */
int CreateContext(lua_State* L, ZOVRELAY_Context*& context);
// Destroys the context and removes the semaphore file.
void DestroyContext(ZOVRELAY_Context*& context);

// Applies the options table (argument 4) to the context and subscribes its event handlers.
// Null when all was applied, else the message of the first rejected entry: a static string, or
// one pushed on the stack (valid while it stays there). Never raises by itself; metamethods may.
const char* ContextOptions(lua_State* L, ZOVRELAY_Context* context, int& cleanupMode);

// The one function the module hands to the relay as a callback; userData is the calling lua_State.
int Callback(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* message, void* userData);

int l_startup(lua_State* L);
int l_shutdown(lua_State* L);
int l_version(lua_State* L);
int l_ok(lua_State* L);

#endif
