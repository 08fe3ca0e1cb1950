// The repository directory beyond its lock: temporaries, the merged archives it holds, the client
// index server.ini, per-version archives, and export.
#ifndef LOCALRELAY_REPOSITORY_H
#define LOCALRELAY_REPOSITORY_H

#include "archive.h"
#include "events.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace localrelay {

// Our temporaries are hidden and never end in ".zip", so the module's clean-up, which runs
// without the lock, never takes one for an archive: ".<name>.part" for packages, ".<name>.tmp"
// for archives and the index, and libzip's own ".<name>.tmp.XXXXXX" beside them.
bool IsTemporaryName(std::string_view name);
std::string PartName(const Identity& identity, const Version& version);  // ".<identity>_<version>.part"
std::string MergedTemporaryName(const Identity& identity);              // ".<identity>_merged.tmp"

// Removes what a killed run left behind: temporaries in packages/ and the index's in the root.
void RemoveStaleTemporaries(int repositoryDirectory);

// The manifests of every readable merged archive in packages/, by identity. An archive that does
// not open, or whose manifest names another identity than its file name, is not held.
std::map<Identity, Manifest> ReadHeld(const std::string& packages);

// Rewrites server.ini (by rename) from the held manifests: each component at its newest version,
// named by its per-version archive, and every recorded product with its held components.
ZOVRELAY_Status WriteIndex(const std::string& repository, const std::map<Identity, Manifest>& held);

// Per-version archives of one component in packages/, oldest first: (version, file name).
std::vector<std::pair<Version, std::string>> VersionArchives(const std::string& packages, const Identity& identity);

// Removes the oldest per-version archives of a component beyond `keep`, raising "removebegin"
// before each and "removefailed" when one stays. kCancelled when a handler answers 0.
ZOVRELAY_Status PruneVersionArchives(const std::string& packages, const Identity& identity, size_t keep,
                                     const Events& events);

// Writes the held version's package to `target` through a temporary beside it, checked against
// the manifest before the rename.
ZOVRELAY_Status ExtractToFile(const MergedArchive& archive, const HeldVersion& held, const std::string& temporary,
                              const std::string& target);

}  // namespace localrelay

#endif
