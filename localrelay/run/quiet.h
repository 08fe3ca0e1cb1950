// A night with nothing new, known without reading the repository's records.
//
// A mirror that ends with everything it was asked for held leaves a seal, ".quiet": a digest of
// what was asked (products, the serving source, options) and of the catalog's text, what the
// mirror answered, when the first held archive falls due for its read-back, and the identity of
// packages/ and of every record. The next mirror with the same request and catalog, before that
// time, that finds packages/ and those records as the seal saw them, has nothing to do: it answers
// what the seal says, having read one small file and looked at a handful, where reading the
// records of a large repository costs many times the catalog's fetch. Anything else (another
// request, another catalog, a record changed, a name made, removed or renamed in packages/, a
// read-back due) takes the full run, which removes the seal before it writes anything.
//
// The archives are not looked at one by one: at 20,000 of them that alone cost twice the catalog's
// fetch. Bytes written over in place, under the same name, change no directory; they are found
// as rotten bytes are, by the archive's read-back (3.5 to 7 days after the last), by a full run
// (any new catalog), or at once by a verifying run.
#ifndef LOCALRELAY_RUN_QUIET_H
#define LOCALRELAY_RUN_QUIET_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/files.h"
#include "run/listing.h"
#include "run/options.h"
#include "run/runlog.h"
#include "run/sources.h"
#include "run/survey.h"

namespace localrelay {

inline constexpr const char* kQuietSealName = ".quiet";

// A file the seal saw: its identity, and its name (NUL-terminated, at `name` in the seal's names).
struct SealedFile {
    FileIdentity identity;
    uint32_t name = 0;
    bool inPackages = false;  // in packages/, else a record in the root
};

struct QuietSeal {
    std::string request;         // RequestDigest of the sealed run (hexadecimal)
    std::string textDigest;      // the SHA-256 (hexadecimal) of the catalog's text it was made with
    int64_t at = 0;              // ns: when the identities were taken, after their last change
    int64_t due = 0;             // ns: when the first held archive falls due for its read-back
    uint64_t heldVersions = 0;   // for the run report: versions held,
    uint64_t planned = 0;        // and packages of the plan held already
    FileIdentity packages;       // packages/ itself: a name made, removed or renamed in it changes it
    std::vector<ListedProduct> result;
    std::string plan;  // the plan (FormatPlan) of a sealing run that had nothing to do and kept it
    // The root's records (a seal of an earlier release names the files of packages/ too):
    // fixed-size records and the names they point into, read where they lie in the seal's bytes.
    std::string_view records, names;
    FileBytes bytes;

    size_t FileCount() const;
    SealedFile File(size_t index) const;
    const char* NameOf(const SealedFile& file) const { return names.data() + file.name; }
};

// SHA-256 (hex) of the products asked for, the serving source (address, catalog, proxy), the
// options, the catalog's text and the key the repository signs with (another key signs anew).
std::string RequestDigest(const ZOVRELAY_Product* products, size_t count, const LoadedSource& source,
                          const Options& options, const SigningKey* signer);

// The seal is binary, in the machine's own byte order (it never leaves the repository it
// describes), and ends with the SHA-256 of all before: it is read at every night of a large
// repository, where parsing a text of a line per file cost more than the catalog's fetch.
std::string FormatSeal(const QuietSeal& seal, const std::vector<SealedFile>& files, std::string_view names);
std::optional<QuietSeal> ParseSeal(FileBytes bytes);  // nullopt for anything malformed or damaged

// The seal in the repository, when its parts are in place, no read-back is due at `now`, the seal
// was taken a clock tick after the last change of packages/, and packages/ is as it saw it. Its
// trailer is checked by FilesAsSealed, before anything it holds is answered.
std::optional<QuietSeal> ReadQuietSeal(int root, int packages, int64_t now);

// Checks the seal's trailer, runs `during` (the catalog's fetch), then looks at every file the seal
// names; true when the seal is whole and each file is as it saw it.
bool FilesAsSealed(const QuietSeal& seal, int root, int packages, int64_t now, const std::function<void()>& during);

// Whether packages/ is as a seal saw it, from the seal's head alone: then no name was made in it
// since, and its temporaries need not be looked for (a large directory to read).
bool PackagesAsSealed(int root, int packages, int64_t now);

// Seals the repository as a run with nothing to do left it; nothing when some held archive is due
// for a read-back or not on record. `state` is the run's held state after it concluded, `planned`
// its count of packages held already, `plan` its plan when it had nothing to do and kept one (the
// plan of every night after, as long as the seal holds).
void WriteQuietSeal(int root, int packages, const std::string& request, const std::string& textDigest,
                    const std::vector<ListedProduct>& result, const HeldState& state, uint64_t planned,
                    const std::string& plan);
void RemoveQuietSeal(int root);

// What the next night's plan will find held already, when the run leaves nothing for it to do
// (every package it acted on downloaded or healed, and stored): so a mirror seals its own result.
std::optional<uint64_t> HeldNextNight(const RunLog& log);

}  // namespace localrelay

#endif
