// What the module knows about component kinds: their friendly names (scan engines: version/engines.h).
#ifndef UPDATE_ENTITIES_KINDS_H
#define UPDATE_ENTITIES_KINDS_H

#include "relay/zovrelay.h"

// The friendly name of a well-known component (a static string), or null.
const char* EntityFriendlyName(const ZOVRELAY_EntityItem& item);

#endif
