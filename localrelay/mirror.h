// ZOVRELAY_Duplicate's work: plan what a request names, download what the repository lacks,
// store it in the merged archives, keep the retention limits. The caller rewrites the index.
#ifndef LOCALRELAY_MIRROR_H
#define LOCALRELAY_MIRROR_H

#include "context.h"
#include "events.h"
#include "heldcache.h"
#include "options.h"
#include "records.h"
#include "repository.h"
#include "runlog.h"
#include "sources.h"

#include <optional>
#include <string>
#include <vector>

namespace localrelay {

// Works through the repository's descriptors, under its lock. On success `result` holds each
// selected product with the requested components it now holds. A product carrying components
// mirrors exactly those; one without mirrors all its components at their newest catalog version.
// `log`, when given, gets each package planned, downloaded, healed or failed; each failed one is
// also reported by an event.
// `leaving` gets the per-version archives beyond keepcount: the caller removes them once the
// index no longer names them. `cache`, when given, is what the caller knows of the merged archives
// (kept up to date here). `held`, when given, gets what the repository holds after the run, as
// source.ini lists it, unless a write failed half-way (then the caller reads the archives again).
ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, RunLog* log = nullptr,
                       Alternates* alternates = nullptr, HeldCache* cache = nullptr,
                       std::optional<ServedCatalog>* held = nullptr);

}  // namespace localrelay

#endif
