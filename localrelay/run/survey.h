// What the repository holds as a run begins, read before anything is planned: the listing of
// packages/, what each merged archive holds (through the held cache), when each was last read
// back in full, and, for the archives due, that read-back itself. Nothing here writes a file: the
// records it updates stay in memory until a run that executes its plan writes them.
#ifndef LOCALRELAY_SURVEY_H
#define LOCALRELAY_SURVEY_H

#include "repository/heldcache.h"
#include "repository/repository.h"
#include "repository/verification.h"
#include "run/plan.h"

#include <optional>
#include <string>

namespace localrelay {

// Read while the source's catalog is on its way (it raises no event and writes nothing).
struct HeldState {
    HeldCache cache;
    Listing packages;
    ServedCatalog served;
    std::optional<std::string> sourceCatalog;  // source.ini's text for `served`, while that is unchanged
    VerificationRecord verified;
    bool sourceCurrent = false;  // source.ini on disk is that text (the held cache vouches for it)
    bool verifiedChanged = false;  // `verified` differs from .verified: written when the run ends
    const SigningKey* signer = nullptr;  // the repository signs its catalogs with it

    void ServedChanged() {  // `served` (or source.ini) changed: the catalog is formatted again
        sourceCatalog.reset();
        sourceCurrent = false;
    }
};
HeldState ReadHeldState(int root, int packages);

struct SurveyScope {
    bool everything = false;  // every archive is read back in full now, due or not, selected or not
    bool sizes = false;       // the sizes of the other files in packages/ (for a plan that is shown)
};

// Reads back the merged archives of the selected components that are due (and with `everything`
// all of them) and every per-version archive that is due. An archive read back in full is recorded
// afresh from its own bytes: its held cache entry and what source.ini serves of it are rebuilt, so
// a damaged or forged record never outlives a read-back.
HeldView Survey(int packages, HeldState& state, const Selection& selection, SurveyScope scope, int64_t now);

}  // namespace localrelay

#endif
