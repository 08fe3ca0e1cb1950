// The display version of a component, chosen by its class and type.
#ifndef UPDATE_VERSION_CONVERSION_H
#define UPDATE_VERSION_CONVERSION_H

#include "relay/zovrelay.h"
#include "version/notation.h"

// The text that ConvertVersionFormatKE2UI pushes.
VersionText DisplayVersionText(int klass, int type, const ZOV_Version* version);

/* [-0, +1]: pushes the display version */
void ConvertVersionFormatKE2UI(lua_State* L, int klass, int type, const ZOV_Version* version);

#endif
