// The plan of a mirror run, as a value: for every component and version the request names, what is
// held, what is downloaded from where (size and digest), what is healed, skipped or excluded, the
// manifest each merged archive will have, the per-version archives written and pruned, and the
// files packages/ will hold. It is a pure function of the source's catalog, what the repository
// holds (read beforehand, see survey.h) and the options: the run executes it, and a plan-only run
// (the command's dry run) hands it out without executing it.
#ifndef LOCALRELAY_PLAN_H
#define LOCALRELAY_PLAN_H

#include "archive/archive.h"
#include "catalog/catalog.h"
#include "repository/repository.h"
#include "run/listing.h"
#include "run/options.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace localrelay {

// One selected product's claim on a component: every catalog version of it (the product names it
// at its newest, which brings the older along: a mirror keeps what its source keeps, as many as
// maxmerge allows), or one older version named by the request.
struct Claim {
    size_t product = 0;             // index into the catalog's products
    const Component* only = nullptr;  // nullptr: every version
};

// What a request names of one component: its versions in the order first named, and the claims.
// Claims rather than products per version keep a catalog whose products all name one component at
// many versions linear to plan (products times versions would be quadratic).
struct Selected {
    Identity identity;
    std::vector<const Component*> versions;
    std::vector<Claim> claims;
    // Every catalog version, newest first and then in catalog order, once a claim took them all:
    // the order in which the result record lists them for such a product.
    std::vector<const Component*> every;
};

struct Selection {
    std::vector<Selected> components;  // in the order first named
    // Per selected catalog product (by index, ascending): the components it names, as indexes into
    // `components` with the claim's version (nullptr: every version), in the order named.
    std::map<size_t, std::vector<std::pair<size_t, const Component*>>> products;
};

// Fails (kNotFound, with the detail recorded) when any part of the request names nothing.
ZOVRELAY_Status Select(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count, Selection& selection);

// What the repository holds, read (and where due, read back in full) before planning.
// A per-version archive in packages/: its digest is known when it was due for a read-back.
struct VersionArchive {
    Version version;
    std::string name;
    uint64_t size = 0;
    FileIdentity file;
    std::optional<std::string> sha256;  // read now; nullopt: trusted from its verification record
    int64_t seen = 0;                    // when it was opened to be read (nanoseconds)
};
struct HeldView {
    const ServedCatalog* served = nullptr;              // every merged archive's manifest
    std::map<Identity, std::vector<Version>> damaged;  // held versions whose bytes failed the read-back
    std::set<Identity> unreadable;                      // listed, but the archive no longer opens
    std::map<Identity, std::vector<VersionArchive>> versionArchives;  // oldest first
    std::map<std::string, uint64_t> files;  // every other visible name in packages/ (plan-only runs)

    const Manifest* Held(const Identity& identity) const;
};

enum class Action {
    kHeld,      // held with this digest: nothing to do
    kDownload,  // not held, or held with another digest (republished)
    kHeal,      // held, but its bytes failed the read-back: downloaded again
    kSkip,      // older than the versions kept
    kExcluded,  // its file type is blacklisted
};
const char* ActionName(Action action);

struct PlannedVersion {
    const Component* component = nullptr;
    Action action = Action::kHeld;
};

struct ComponentPlan {
    Identity identity;
    std::vector<PlannedVersion> versions;  // in the order first named
    bool held = false;     // it has a merged archive that opens
    std::vector<Version> damaged;
    Manifest next;         // what the merged archive holds once every download succeeded
    bool settled = false;  // nothing to download and nothing to change: the archive stays as it is
    std::vector<std::string> versionArchives;  // per-version archives written (buildpatch)
    std::vector<std::string> pruned;           // per-version archives beyond keepcount afterwards

    std::vector<const Component*> Downloads() const;
    bool Heals(const Version& version) const;
};

struct Plan {
    std::vector<ComponentPlan> components;  // as the selection orders them
    std::vector<std::string> healedArchives;  // per-version archives written again from their merged archive
    std::map<std::string, uint64_t> files;    // packages/ afterwards: visible names but merged archives, with sizes
    uint64_t bytes = 0;                       // to download, saturated at UINT64_MAX
    size_t held = 0;                          // versions held already
    std::map<Identity, std::vector<Version>> damaged;  // held copies whose bytes failed the read-back
    std::set<Identity> unreadable;                     // served, but the merged archive no longer opens
};

// The decisions of one run; no file is read.
Plan MakePlan(const Catalog& catalog, const Selection& selection, const HeldView& view, const Options& options);

// What a merged archive's manifest becomes when `stored` versions arrive: they replace the held
// ones of the same version, the newest versions kept, the section as the source lists it now, and
// the selected products that contain a kept version (each identity once, at its newest version).
Manifest NextManifest(const Catalog& catalog, const Selected& selected, Manifest manifest,
                      const std::vector<const Component*>& stored, const Options& options);

// What FormatManifest tells apart, compared without formatting either.
bool SameManifest(const Manifest& a, const Manifest& b);

// The catalog's products and the components they name that the repository holds afterwards (as
// `held` records each identity): the operation's result record.
std::vector<ListedProduct> HeldProducts(const Catalog& catalog, const Selection& selection, const Options& options,
                                        const std::map<Identity, Manifest>& held);

// The plan in JSON, for the command's dry run: the source, every component version with its
// action, size, digest and address, the archives written, healed and pruned, and packages/ after.
std::string FormatPlan(const Plan& plan, const std::string& source);

}  // namespace localrelay

#endif
