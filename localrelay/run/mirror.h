// ZOVRELAY_Duplicate's work: read what the repository holds, plan what the request names, then
// download what the repository lacks, store it in the merged archives and keep the retention
// limits. The caller rewrites the catalogs.
#ifndef LOCALRELAY_MIRROR_H
#define LOCALRELAY_MIRROR_H

#include "base/events.h"
#include "repository/lock.h"
#include "run/listing.h"
#include "run/options.h"
#include "run/runlog.h"
#include "run/sources.h"
#include "run/survey.h"

#include <string>
#include <vector>

namespace localrelay {

struct RunMode {
    bool planOnly = false;     // the plan is made and handed out in `plan`; nothing is written
    bool readBackAll = false;  // every held archive is read back in full, due or not
    std::string* plan = nullptr;  // receives the plan as JSON when given
};

// Works through the repository's descriptors, under its lock (none for a plan-only run). On
// success `result` holds each selected product with the requested components it now holds (a
// plan-only run: would hold). A product carrying components mirrors exactly those; one without
// mirrors all its components at their newest catalog version, the older ones the catalog lists
// coming along as far as maxmerge keeps them.
// `log`, when given, gets each package planned, downloaded, healed or failed; each failed one is
// also reported by an event.
// `leaving` gets the per-version archives beyond keepcount: the caller removes them once the
// index no longer names them. `state` is kept up to date with what the run wrote, except that its
// served catalog is what the repository holds only while `exact` stays true: a write that failed
// half-way clears it (then the caller reads the archives again).
ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, HeldState& state,
                       bool& exact, RunLog* log = nullptr, Alternates* alternates = nullptr, RunMode mode = {});

}  // namespace localrelay

#endif
