// ZOVRELAY_Duplicate's work: plan what a request names, download what the repository lacks,
// store it in the merged archives, keep the retention limits. The caller rewrites the index.
#ifndef LOCALRELAY_MIRROR_H
#define LOCALRELAY_MIRROR_H

#include "repository/lock.h"
#include "base/events.h"
#include "repository/heldcache.h"
#include "run/options.h"
#include "run/listing.h"
#include "repository/repository.h"
#include "run/runlog.h"
#include "run/sources.h"
#include "repository/verification.h"

#include <optional>
#include <string>
#include <vector>

namespace localrelay {

// What the repository holds as a run begins: the listing of packages/, what each merged archive
// holds and serves (through the held cache) and when each was last read back in full. Reading it
// costs as much as a large repository is big, so the caller reads it while the source's catalog
// is on its way; it raises no event and writes nothing.
struct HeldState {
    HeldCache cache;
    Listing packages;
    ServedCatalog served;
    std::optional<std::string> sourceCatalog;  // source.ini's text for `served`, while that is unchanged
    VerificationRecord verified;
};
HeldState ReadHeldState(int root, int packages);

// Works through the repository's descriptors, under its lock. On success `result` holds each
// selected product with the requested components it now holds. A product carrying components
// mirrors exactly those; one without mirrors all its components at their newest catalog version.
// `log`, when given, gets each package planned, downloaded, healed or failed; each failed one is
// also reported by an event.
// `leaving` gets the per-version archives beyond keepcount: the caller removes them once the
// index no longer names them. `state` is kept up to date with what the run wrote, except that its
// served catalog is what the repository holds only while `exact` stays true: a write that failed
// half-way clears it (then the caller reads the archives again).
ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, HeldState& state,
                       bool& exact, RunLog* log = nullptr, Alternates* alternates = nullptr);

}  // namespace localrelay

#endif
