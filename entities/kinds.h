// What the module knows about component kinds: scan engines and friendly names.
#ifndef UPDATE_ENTITIES_KINDS_H
#define UPDATE_ENTITIES_KINDS_H

#include "relay/zovrelay.h"

bool IsScanEngine(int klass, int type);

// The friendly name of a well-known component (a static string), or null.
const char* EntityFriendlyName(const ZOVRELAY_EntityItem& item);

#endif
