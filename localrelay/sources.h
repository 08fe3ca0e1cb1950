// Choosing the source that serves an operation: the first, in the order given, whose catalog loads.
#ifndef LOCALRELAY_SOURCES_H
#define LOCALRELAY_SOURCES_H

#include "catalog.h"
#include "options.h"
#include "transfer.h"

#include <string>

namespace localrelay {

struct LoadedSource {
    std::string address;
    TransferSettings settings;  // the context's limits with this source's proxy
    Catalog catalog;
};

// Sources with a null address are skipped. kInvalidArgument for a string that names no
// characters; otherwise, when no catalog loads, kInvalidCatalog if some source answered with a
// malformed one, else kNoSourceReachable.
// Transfers go through `pool` when given.
ZOVRELAY_Status LoadSource(const ZOVRELAY_Source* sources, size_t count, const Options& options, LoadedSource& loaded,
                           Pool* pool = nullptr);

}  // namespace localrelay

#endif
