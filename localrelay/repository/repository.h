// The repository directory beyond its lock: temporaries, the merged archives it holds, the client
// index server.ini, the source catalog source.ini, per-version archives, and extraction. Every
// function works through the directory descriptors the context opened, never through a path.
#ifndef LOCALRELAY_REPOSITORY_H
#define LOCALRELAY_REPOSITORY_H

#include "archive/archive.h"
#include "base/events.h"
#include "catalog/signature.h"
#include "repository/heldcache.h"

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace localrelay {

// The catalog a repository serves to other relays, in the catalog format with byte ranges into
// the merged archives. The module's clean-up never touches it (it resets server.ini and deletes
// per-version archives only), so a cleaned repository still serves every version it holds.
inline constexpr const char* kSourceCatalogName = "source.ini";
inline constexpr const char* kIndexName = "server.ini";
// Their signature files, when the repository signs its catalogs (repository/signing.h).
inline constexpr const char* kSourceSignatureName = "source.ini.sig";
inline constexpr const char* kIndexSignatureName = "server.ini.sig";
// A mirror's record of the last catalog generation it accepted from each signed source.
inline constexpr const char* kGenerationsName = ".catalog-generations";

// Our temporaries are hidden and never end in ".zip", so the module's clean-up, which runs
// without the lock, never takes one for an archive: ".<name>.part" for downloads,
// ".<name>.<random>.tmp" for archives, catalogs and per-version archives (libzip's own
// ".<name>.tmp.XXXXXX" from earlier versions is recognised too).
bool IsTemporaryName(std::string_view name);
std::string PartName(const Identity& identity, const Version& version);  // ".<identity>_<version>.part"
std::string TemporaryPrefix(std::string_view name);                       // ".<name>."; add the random part and ".tmp"
inline constexpr std::string_view kTemporarySuffix = ".tmp";

// The names in `directory`, from one listing; none when it cannot be read.
std::set<std::string> NamesIn(int directory);

// The names in a directory, listed on first use and again only after a writer said it changed:
// a run with nothing to do lists packages/ once, however many steps look at it.
class Listing {
public:
    explicit Listing(int directory = -1) : directory_(directory) {}
    const std::set<std::string>& names() {
        if (!current_) names_ = NamesIn(directory_), current_ = true;
        return names_;
    }
    void Changed() { current_ = false; }

private:
    int directory_;
    std::set<std::string> names_;
    bool current_ = false;
};

// Removes what a killed run left behind: our temporaries in packages/ and in the root (files,
// links, and empty directories planted under such names; a link's target is never touched). A
// directory of -1 is left alone.
void RemoveStaleTemporaries(int root, int packages);

// The manifests of every readable merged archive in packages/, by identity. An archive that does
// not open, or whose manifest names another identity than its file name, is not held. With a
// `cache`, only archives it cannot vouch for are opened.
std::map<Identity, Manifest> ReadHeld(int packages, HeldCache* cache = nullptr);

// What source.ini lists of one held component: each version as its byte range of the merged
// archive (read from the archive's layout), with the manifest for the products that name it.
struct ServedComponent {
    Manifest manifest;
    // Per version of the manifest, where its bytes start in the merged archive; none when the
    // archive's layout does not hold them whole, and then it is not served. Offsets rather than
    // catalog lines: a night with nothing new never formats them.
    std::vector<std::optional<uint64_t>> offsets;
    // The name in packages/ the versions are served under (see PublishedName); empty: the merged
    // archive's working name.
    std::string published;

    std::vector<Component> Versions() const;  // the catalog lines, for the versions served
    bool Serves() const {
        for (const std::optional<uint64_t>& offset : offsets)
            if (offset) return true;
        return false;
    }
};
using ServedCatalog = std::map<Identity, ServedComponent>;
ServedComponent Served(int packages, const Manifest& manifest, HeldCache* cache = nullptr);

// Cache-safe publishing: source.ini names each merged archive by a hard link whose name carries
// its generation, "<identity>_merged.zip.<16 hex digits>", so the bytes under a published URL never
// change and any web cache may keep them. Replacing the archive leaves the old link (and so the
// old catalog's ranges) intact. The name does not end in ".zip": the module's clean-up leaves it.
std::string PublishedName(const Identity& identity, const FileIdentity& file);
// Makes every link `served` names; a component whose link cannot be made (a file system without
// hard links) is named by its working name instead. False when that happened to any.
bool Publish(int packages, ServedCatalog& served);
// Links the published name of the component's merged archive as it is now. A link changes the
// archive's time of change: a writer links first and then records the archive, so that what it
// records still holds the next night.
bool PublishArchive(int packages, const Identity& identity);
bool IsPublishedName(std::string_view name);  // "<identity>_merged.zip.<hex digits>"
// Removes published links that `served` no longer names, once no other name holds their archive
// and that has been so for kPublishedSeconds: a catalog read before the replacement, and its
// ranges, stay good for two nights. `present` is the listing of packages/.
inline constexpr int64_t kPublishedSeconds = 2 * 86400;
void PrunePublished(int packages, const ServedCatalog& served, const std::set<std::string>& present, int64_t now);
// ServedOf(ReadHeld) in one pass over the archives the cache knows (or reads); `names` is the
// listing of packages/.
ServedCatalog ReadServed(int packages, const std::set<std::string>& names, HeldCache& cache);
ServedCatalog ServedOf(int packages, const std::map<Identity, Manifest>& held, HeldCache* cache = nullptr);
// `hidden`: components left out (a writer about to replace their archives).
std::string FormatSourceCatalog(const ServedCatalog& served, const std::set<Identity>* hidden = nullptr);

// Rewrites source.ini and then server.ini (each by rename) from the held manifests. source.ini
// lists every held version as its byte range of the merged archive; server.ini lists each
// component's newest version by its per-version archive, only where that file exists with the
// right size and is not in `leaving` (about to be pruned), with every recorded product. A catalog
// whose text would not change is left alone. `present` is the listing of packages/;
// `sourceCatalog`, when given, is FormatSourceCatalog(served) made before. Components in `hidden`
// are left out of both. `sourceCurrent`: source.ini is known to hold that text already. With a
// `signer`, each catalog's signature file is written before it (WriteSignedFileAt).
ZOVRELAY_Status WriteCatalogs(int root, int packages, const ServedCatalog& served, const std::set<std::string>& leaving,
                              const std::set<std::string>& present, const std::string* sourceCatalog = nullptr,
                              const std::set<Identity>* hidden = nullptr, bool sourceCurrent = false,
                              const SigningKey* signer = nullptr);
ZOVRELAY_Status WriteCatalogs(int root, int packages, const std::map<Identity, Manifest>& held,
                              const std::set<std::string>& leaving = {}, HeldCache* cache = nullptr);

// Per-version archives of one component in packages/, oldest first: (version, file name).
std::vector<std::pair<Version, std::string>> VersionArchives(int packages, const Identity& identity);

// Every per-version archive among `names` (the listing of packages/), by identity, oldest first.
std::map<Identity, std::vector<std::pair<Version, std::string>>> AllVersionArchives(const std::set<std::string>& names);

// Removes the named per-version archives, raising "removebegin" before each and "removefailed"
// when one stays (event texts name `packagesPath`/<name>). kCancelled when a handler answers 0.
ZOVRELAY_Status RemoveVersionArchives(int packages, const std::string& packagesPath, const std::vector<std::string>& names,
                                      const Events& events);

// Writes the held version's package to `target` in `directory` through a fresh exclusive
// temporary "<prefix><random><suffix>" beside it, checked against the manifest before the rename.
// The file gets 0666 less the umask. `lock` flocks the temporary while it is written, which tells
// a concurrent clean-up of stale temporaries that it is alive.
ZOVRELAY_Status ExtractInto(const MergedArchive& archive, const HeldVersion& held, int directory,
                            std::string_view prefix, std::string_view suffix, const std::string& target,
                            bool lock = false);

// Exports are written to ".<name>.<random>.zovrelay-export" beside their target, flocked while
// written. A run killed meanwhile leaves one behind; the next export into the same directory
// removes those that nobody holds and that are older than a minute.
inline constexpr std::string_view kExportSuffix = ".zovrelay-export";
void RemoveAbandonedExports(int directory);

}  // namespace localrelay

#endif
