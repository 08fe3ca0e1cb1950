// Listing, mirroring and export. They arrive with the mirroring work; until then every request
// is refused, and no record is ever handed out.
#include "library.h"
#include "status.h"

using namespace localrelay;

extern "C" {

ZOVRELAY_Status ZOVRELAY_GetInformation(ZOVRELAY_Context* /*context*/, const ZOVRELAY_Product* /*products*/,
                                        size_t /*productCount*/, const ZOVRELAY_Source* /*sources*/,
                                        size_t /*sourceCount*/, ZOVRELAY_Information** /*information*/) {
    return IsStarted() ? kInvalidArgument : kNotStarted;
}

ZOVRELAY_Status ZOVRELAY_Duplicate(ZOVRELAY_Context* /*context*/, const ZOVRELAY_Product* /*products*/,
                                   size_t /*productCount*/, const ZOVRELAY_Source* /*sources*/,
                                   size_t /*sourceCount*/, ZOVRELAY_Information** /*information*/) {
    return IsStarted() ? kInvalidArgument : kNotStarted;
}

// No record exists yet to release; once one does, it is freed here whatever the library's state.
ZOVRELAY_Status ZOVRELAY_DestroyData(ZOVRELAY_Information* /*information*/) {
    return IsStarted() ? kInvalidArgument : kNotStarted;
}

ZOVRELAY_Status ZOVRELAY_ExportComponent(ZOVRELAY_Context* /*context*/, const wchar_t* /*destination*/,
                                         ZOVRELAY_EntityItem /*entity*/) {
    return IsStarted() ? kInvalidArgument : kNotStarted;
}

} // extern "C"
