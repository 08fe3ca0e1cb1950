// Identifier strings of products and components, such as c3t4v16.1230.0l1p-1r-1o-1.
#ifndef UPDATE_ENTITIES_IDENTIFIERS_H
#define UPDATE_ENTITIES_IDENTIFIERS_H

#include <stddef.h>

#include "relay/zovrelay.h"

struct lua_State;

// Parses text[0..length) into item; null on success, else one of the parser's static messages.
// item is always reset first and holds what was parsed before a failure.
const char* ParseIdentifier(const char* text, size_t length, ZOVRELAY_EntityItem& item);

/* [-0, +0]: parses the value at index (a number is converted in its slot); never raises */
const char* StringToComponent(lua_State* L, int index, ZOVRELAY_EntityItem& item);
/* [-0, +0]: the same into a product with no components */
const char* StringToProduct(lua_State* L, int index, ZOVRELAY_Product& product);

// Texts written into out (at least kIdentifierSize bytes); each returns the length, no NUL.
enum { kIdentifierSize = 128 };
size_t ComponentText(const ZOVRELAY_EntityItem& item, char* out);
size_t EntityText(const ZOVRELAY_EntityItem& item, char* out);

/* [-0, +1]: pushes c%dt%dl%dp%dr%do%d */
void ComponentToString(lua_State* L, const ZOVRELAY_EntityItem& item);
/* [-0, +1]: pushes the versioned product identifier, through the global string.format */
void ProductToString(lua_State* L, const ZOVRELAY_EntityItem& item);
/* [-0, +1]: pushes the full identifier with the version as identifiers write it */
void EntityToString(lua_State* L, const ZOVRELAY_EntityItem& item);

#endif
