// A night with nothing new, known without reading the repository's records.
//
// A mirror that ends with everything it was asked for held leaves a seal, ".quiet": a digest of
// what was asked (products, the serving source, options) and of the catalog's text, what the
// mirror answered, when the first held archive falls due for its read-back, and the identity of
// every record and of every file in packages/. The next mirror with the same request and catalog,
// before that time, that finds every one of those files as the seal saw it, has nothing to do: it
// answers what the seal says, having read one small record and looked at each file once, where
// reading the records of a large repository costs many times the catalog's fetch. Anything else
// (another request, another catalog, a file changed, added or removed, a read-back due) takes the
// full run, which removes the seal before it writes anything.
#ifndef LOCALRELAY_RUN_QUIET_H
#define LOCALRELAY_RUN_QUIET_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "run/listing.h"
#include "run/options.h"
#include "run/runlog.h"
#include "run/sources.h"
#include "run/survey.h"

namespace localrelay {

inline constexpr const char* kQuietSealName = ".quiet";

struct QuietSeal {
    std::string request;         // RequestDigest of the sealed run
    int64_t at = 0;              // ns: when the identities were taken, after their last change
    int64_t due = 0;             // ns: when the first held archive falls due for its read-back
    uint64_t heldVersions = 0;   // for the run report: versions held,
    uint64_t planned = 0;        // and packages of the plan held already
    std::vector<ListedProduct> result;
    std::vector<std::pair<std::string, FileIdentity>> files;  // "packages/" names and the root's records
    std::string plan;  // the plan (FormatPlan) of a sealing run that had nothing to do and kept it
};

// SHA-256 (hex) of the products asked for, the serving source (address, catalog, proxy), the
// options, the catalog's text and the key the repository signs with (another key signs anew).
std::string RequestDigest(const ZOVRELAY_Product* products, size_t count, const LoadedSource& source,
                          const Options& options, const SigningKey* signer);

std::string FormatSeal(const QuietSeal& seal);
std::optional<QuietSeal> ParseSeal(std::string_view text);  // nullopt for anything malformed

// The seal in the repository, when it is whole and every file it names is as it was (and none is
// added to packages/), no read-back is due at `now`, and the seal was taken a clock tick after the
// files' last changes.
std::optional<QuietSeal> ReadQuietSeal(int root, int packages, int64_t now);

// Seals the repository as a run with nothing to do left it; nothing when some held archive is due
// for a read-back or not on record. `state` is the run's held state after it concluded, `planned`
// its count of packages held already, `plan` its plan when it had nothing to do and kept one (the
// plan of every night after, as long as the seal holds).
void WriteQuietSeal(int root, int packages, const std::string& request, const std::vector<ListedProduct>& result,
                    const HeldState& state, uint64_t planned, const std::string& plan);
void RemoveQuietSeal(int root);

// What the next night's plan will find held already, when the run leaves nothing for it to do
// (every package it acted on downloaded or healed, and stored): so a mirror seals its own result.
std::optional<uint64_t> HeldNextNight(const RunLog& log);

}  // namespace localrelay

#endif
