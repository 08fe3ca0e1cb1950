// ZOVRELAY_Duplicate's work: plan what a request names, download what the repository lacks,
// store it in the merged archives, keep the retention limits. The caller rewrites the index.
#ifndef LOCALRELAY_MIRROR_H
#define LOCALRELAY_MIRROR_H

#include "events.h"
#include "options.h"
#include "records.h"
#include "sources.h"

#include <string>
#include <vector>

namespace localrelay {

// `repository` is the context's absolute path. On success `result` holds each selected product
// with the requested components it now holds. A product carrying components mirrors exactly
// those; one without mirrors all its components at their newest catalog version.
ZOVRELAY_Status Mirror(const std::string& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, Alternates* alternates = nullptr);

}  // namespace localrelay

#endif
