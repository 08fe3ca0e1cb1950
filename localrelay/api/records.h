// Information records handed to the caller: deep copies in one allocation each, remembered so
// that ZOVRELAY_DestroyData frees each exactly once and refuses anything else.
#ifndef LOCALRELAY_RECORDS_H
#define LOCALRELAY_RECORDS_H

#include "run/listing.h"
#include "zovrelay.h"

#include <vector>

namespace localrelay {

// nullptr when memory runs out.
ZOVRELAY_Information* MakeInformation(const std::vector<ListedProduct>& products);

// False, freeing nothing, for a pointer that is not an outstanding record of ours.
bool ReleaseInformation(ZOVRELAY_Information* information);

}  // namespace localrelay

#endif
