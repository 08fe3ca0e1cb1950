#include "repository/repository.h"
#include "repository/signing.h"
#include "transfer/downloader.h"
#include "base/files.h"
#include "transfer/package.h"
#include "base/status.h"
#include "archive/ziplayout.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <ctime>

namespace localrelay {
namespace {

constexpr std::string_view kMergedSuffix = "_merged.zip";

bool EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Calls `visit` with the name of every entry of `directory`, read through a fresh open of it (a
// dup would share, and move, the descriptor's position); quietly nothing when it cannot be read.
template <class Visit>
void ForEachEntry(int directory, Visit&& visit) {
    const int fd = OpenDirectoryAt(directory, ".");
    DIR* listing = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (listing == nullptr) {
        if (fd >= 0) ::close(fd);
        return;
    }
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") visit(name);
    }
    ::closedir(listing);
}

// Hands the package's bytes to a temporary file (the archive checks them on the way).
class FileSink : public ChunkSink {
public:
    explicit FileSink(TemporaryFile& file) : file_(file) {}
    bool Write(const char* data, size_t size) override {
        stopStatus = file_.Write(data, size);
        return stopStatus > 0;
    }

private:
    TemporaryFile& file_;
};

}  // namespace

bool IsTemporaryName(std::string_view name) {
    if (name.empty() || name[0] != '.') return false;
    name.remove_prefix(1);  // what remains is "<name><suffix>", with a name before the suffix
    for (const std::string_view suffix : {".part", ".tmp"})
        if (name.size() > suffix.size() && EndsWith(name, suffix)) return true;
    return name.size() > 11 && name.substr(name.size() - 11, 5) == ".tmp.";  // libzip's mkstemp
}

std::string PartName(const Identity& identity, const Version& version) {
    return "." + FormatIdentity(identity) + "_" + FormatVersion(version) + ".part";
}

std::string TemporaryPrefix(std::string_view name) { return "." + std::string(name) + "."; }

namespace {

// In the root only the temporaries of our own files count: someone else's ".notes.tmp" stays.
bool IsRootTemporaryName(std::string_view name) {
    for (const std::string_view file : {kIndexName, kSourceCatalogName, ".verified", kHeldCacheName, kSourceSignatureName,
                                        kIndexSignatureName, kGenerationsName}) {
        const std::string prefix = TemporaryPrefix(file);
        if (name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix && EndsWith(name, kTemporarySuffix))
            return true;
    }
    return name == ".server.ini.tmp";  // from earlier versions
}

}  // namespace

std::set<std::string> NamesIn(int directory) {
    std::set<std::string> names;
    ForEachEntry(directory, [&](std::string_view name) { names.emplace(name); });
    return names;
}

void RemoveStaleTemporaries(int root, int packages) {
    for (const int directory : {root, packages}) {
        if (directory < 0) continue;
        std::vector<std::string> stale;
        ForEachEntry(directory, [&](std::string_view name) {
            // A part with its resume record is kept: the next mirror continues it, and removes it
            // when it no longer wants it.
            if (directory == root ? IsRootTemporaryName(name)
                                  : IsTemporaryName(name) && !IsResumablePart(packages, std::string(name)))
                stale.emplace_back(name);
        });
        // What cannot be removed (a full directory planted under such a name) stays: temporaries
        // are always created under fresh names, so it is in nobody's way.
        for (const std::string& name : stale) RemoveAt(directory, name);
    }
}

std::map<Identity, Manifest> ReadHeld(int packages, HeldCache* cache) {
    std::map<Identity, Manifest> held;
    ForEachEntry(packages, [&](std::string_view name) {
        if (!EndsWith(name, kMergedSuffix)) return;
        const std::optional<Identity> identity = ParseIdentity(name.substr(0, name.size() - kMergedSuffix.size()));
        if (!identity) return;
        if (cache != nullptr) {
            const CachedArchive* archive = cache->Find(packages, std::string(name));
            if (archive != nullptr && archive->manifest.identity == *identity && !archive->manifest.versions.empty())
                held.emplace(*identity, archive->manifest);
            return;
        }
        const std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages, std::string(name));
        if (archive != nullptr && archive->manifest().identity == *identity && !archive->manifest().versions.empty())
            held.emplace(*identity, archive->manifest());
    });
    return held;
}

namespace {

ServedComponent ServedFrom(const Manifest& manifest, const std::map<std::string, EntryRange>* ranges,
                           const std::string& published) {
    ServedComponent served{manifest, std::vector<std::optional<uint64_t>>(manifest.versions.size()), published};
    if (ranges == nullptr) return served;  // an archive we cannot read the layout of serves nothing
    for (size_t i = 0; i < manifest.versions.size(); ++i) {
        const HeldVersion& held = manifest.versions[i];
        const auto range = ranges->find(EntryName(held));
        if (range != ranges->end() && range->second.stored && range->second.size == held.size)
            served.offsets[i] = range->second.offset;
    }
    return served;
}

}  // namespace

std::vector<Component> ServedComponent::Versions() const {
    std::vector<Component> versions;
    const std::string path = "packages/" + (published.empty() ? MergedArchiveName(manifest.identity) : published);
    for (size_t i = 0; i < manifest.versions.size() && i < offsets.size(); ++i) {
        const HeldVersion& held = manifest.versions[i];
        if (offsets[i])
            versions.push_back(Component{manifest.section, manifest.identity, held.version, path, held.size, held.sha256,
                                         *offsets[i], held.path});
    }
    return versions;
}

ServedComponent Served(int packages, const Manifest& manifest, HeldCache* cache) {
    const std::string merged = MergedArchiveName(manifest.identity);
    std::optional<std::map<std::string, EntryRange>> read;
    const std::map<std::string, EntryRange>* ranges = nullptr;
    std::optional<FileIdentity> file;
    if (const CachedArchive* cached = cache != nullptr ? cache->Find(packages, merged) : nullptr) {
        ranges = &cached->ranges;
        file = cached->file;
    } else if (cache == nullptr) {
        const FileDescriptor fd(OpenFileAt(packages, merged));
        if (fd.get() >= 0 && (file = FileIdentityOf(fd.get())) && (read = ReadEntryRanges(fd.get()))) ranges = &*read;
    }
    return ServedFrom(manifest, ranges, file ? PublishedName(manifest.identity, *file) : merged);
}

ServedCatalog ReadServed(int packages, const std::set<std::string>& names, HeldCache& cache) {
    ServedCatalog served;
    for (const std::string& merged : names) {
        const std::string_view name(merged);
        if (!EndsWith(name, kMergedSuffix)) continue;
        const std::optional<Identity> identity = ParseIdentity(name.substr(0, name.size() - kMergedSuffix.size()));
        if (!identity) continue;
        const CachedArchive* archive = cache.Find(packages, merged);
        if (archive != nullptr && archive->manifest.identity == *identity && !archive->manifest.versions.empty())
            served.emplace_hint(served.end(), *identity,
                                ServedFrom(archive->manifest, &archive->ranges, PublishedName(*identity, archive->file)));
    }
    return served;
}

ServedCatalog ServedOf(int packages, const std::map<Identity, Manifest>& held, HeldCache* cache) {
    ServedCatalog served;
    for (const auto& [identity, manifest] : held) served.emplace(identity, Served(packages, manifest, cache));
    return served;
}

std::string PublishedName(const Identity& identity, const FileIdentity& file) {
    // FNV-1a over what changes whenever the archive is written anew (a rename brings another
    // inode and time). The device is left out: it may be numbered differently after a reboot.
    uint64_t hash = 14695981039346656037ull;
    for (const uint64_t value : {file.inode, file.size, uint64_t(file.modified)})
        for (int shift = 0; shift < 64; shift += 8) hash = (hash ^ ((value >> shift) & 0xff)) * 1099511628211ull;
    char tag[17];
    std::snprintf(tag, sizeof tag, "%016llx", static_cast<unsigned long long>(hash));
    return MergedArchiveName(identity) + "." + tag;
}

namespace {

constexpr std::string_view kPublishedMarker = "_merged.zip.";

// The identity a published name belongs to; nullopt for any other name.
std::optional<Identity> PublishedIdentity(std::string_view name) {
    const size_t cut = name.rfind(kPublishedMarker);
    if (cut == std::string_view::npos || cut + kPublishedMarker.size() == name.size()) return std::nullopt;
    for (const char c : name.substr(cut + kPublishedMarker.size()))
        if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    return ParseIdentity(name.substr(0, cut));
}

// Links `published` to the merged archive when it is not that file already. False when the file
// system cannot (no hard links) or the archive changed under us: the working name is served then.
bool Link(int packages, const std::string& merged, const std::string& published) {
    struct stat archive {}, link {};
    if (::fstatat(packages, merged.c_str(), &archive, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(archive.st_mode)) return false;
    if (::fstatat(packages, published.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0) {
        if (link.st_ino == archive.st_ino && link.st_dev == archive.st_dev) return true;
        if (!RemoveAt(packages, published)) return false;
    }
    return ::linkat(packages, merged.c_str(), packages, published.c_str(), 0) == 0;
}

}  // namespace

bool IsPublishedName(std::string_view name) { return PublishedIdentity(name).has_value(); }

bool PublishArchive(int packages, const Identity& identity) {
    const std::string merged = MergedArchiveName(identity);
    struct stat info {};
    if (::fstatat(packages, merged.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) return false;
    // An archive written anew has a name not taken yet: linked at once, a taken one looked at first.
    const std::string published = PublishedName(identity, IdentityOf(info));
    return ::linkat(packages, merged.c_str(), packages, published.c_str(), 0) == 0 || Link(packages, merged, published);
}

bool Publish(int packages, ServedCatalog& served) {
    bool all = true;
    for (auto& [identity, component] : served) {
        if (!component.Serves()) continue;
        const std::string merged = MergedArchiveName(identity);
        if (component.published.empty() || component.published == merged || Link(packages, merged, component.published))
            continue;
        component.published.clear();
        all = false;
    }
    return all;
}

void PrunePublished(int packages, const ServedCatalog& served, const std::set<std::string>& present, int64_t now) {
    for (const std::string& name : present) {
        const std::optional<Identity> identity = PublishedIdentity(name);
        if (!identity) continue;
        const auto named = served.find(*identity);
        if (named != served.end() && named->second.Serves() && named->second.published == name) continue;
        // The last other link went when the archive was replaced, which set the time of change.
        struct stat info {};
        if (::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || info.st_nlink > 1 ||
            now - int64_t(info.st_ctime) < kPublishedSeconds)
            continue;
        ::unlinkat(packages, name.c_str(), 0);
    }
}

namespace {

// Every recorded product, naming those of its components that the catalog lists.
void AddProducts(Catalog& catalog, const std::vector<const Manifest*>& manifests) {
    std::map<std::pair<Identity, Version>, std::vector<Identity>> products;
    for (const Manifest* manifest : manifests)
        for (const ProductRef& product : manifest->products) products[{product.identity, product.version}];
    std::set<Identity> listed;  // a lookup, not a scan per manifest: linear in the repository's size
    for (const Component& component : catalog.components) listed.insert(component.identity);
    for (const Manifest* manifest : manifests)
        if (listed.count(manifest->identity) != 0)
            for (const ProductRef& product : manifest->products)
                products[{product.identity, product.version}].push_back(manifest->identity);
    for (auto& [product, components] : products) catalog.products.push_back(Product{product.first, product.second, components});
}

}  // namespace

std::string FormatSourceCatalog(const ServedCatalog& served, const std::set<Identity>* hidden) {
    Catalog catalog;
    std::vector<const Manifest*> manifests;
    for (const auto& [identity, component] : served) {
        if (hidden != nullptr && hidden->count(identity) != 0) continue;
        std::vector<Component> versions = component.Versions();
        std::move(versions.begin(), versions.end(), std::back_inserter(catalog.components));
        manifests.push_back(&component.manifest);
    }
    AddProducts(catalog, manifests);
    return FormatCatalog(catalog);
}

ZOVRELAY_Status WriteCatalogs(int root, int packages, const std::map<Identity, Manifest>& held,
                              const std::set<std::string>& leaving, HeldCache* cache) {
    return WriteCatalogs(root, packages, ServedOf(packages, held, cache), leaving, NamesIn(packages));
}

ZOVRELAY_Status WriteCatalogs(int root, int packages, const ServedCatalog& served, const std::set<std::string>& leaving,
                              const std::set<std::string>& present, const std::string* sourceCatalog,
                              const std::set<Identity>* hidden, bool sourceCurrent, const SigningKey* signer) {
    // Every name source.ini gives exists before it says so; where a link cannot be made the
    // component is served under its working name, as before names were published. A source.ini
    // still current was written after its links were made: a night with nothing new makes none.
    ServedCatalog linked;
    const bool published = sourceCurrent || Publish(packages, linked = served);
    const ServedCatalog& named = sourceCurrent ? served : linked;
    ZOVRELAY_Status status = kSuccess;
    const int64_t now = NowNanoseconds();
    if (!sourceCurrent || !published)
        status = WriteSignedFileAt(root, kSourceCatalogName,
                                   sourceCatalog != nullptr && published ? *sourceCatalog : FormatSourceCatalog(linked, hidden),
                                   signer, now);
    else if (signer != nullptr)  // unchanged, but perhaps not yet signed with this key
        status = SignCurrentFileAt(root, kSourceCatalogName, *signer, now);
    if (status <= 0) return status;
    PrunePublished(packages, named, present, int64_t(::time(nullptr)));
    Catalog index;
    std::vector<const Manifest*> manifests;
    // Only components with a per-version archive in packages/ can be indexed: without buildpatch
    // none, and their names need not be made for every component.
    std::set<Identity> versioned;
    for (const auto& [identity, archives] : AllVersionArchives(present)) versioned.insert(versioned.end(), identity);
    for (const auto& [identity, component] : served) {
        const Manifest& manifest = component.manifest;
        if (manifest.versions.empty() || (hidden != nullptr && hidden->count(identity) != 0)) continue;
        manifests.push_back(&manifest);
        if (versioned.count(identity) == 0) continue;
        const HeldVersion& newest = manifest.versions.front();
        const std::string file = VersionArchiveName(identity, newest.version);
        struct stat info {};
        if (leaving.count(file) != 0 || present.count(file) == 0 ||
            ::fstatat(packages, file.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(info.st_mode) || uint64_t(info.st_size) != newest.size)
            continue;
        index.components.push_back(Component{manifest.section, identity, newest.version, "packages/" + file,
                                             newest.size, newest.sha256, 0, {}});
    }
    AddProducts(index, manifests);
    return WriteSignedFileAt(root, kIndexName, FormatCatalog(index), signer, now);
}

std::map<Identity, std::vector<std::pair<Version, std::string>>> AllVersionArchives(const std::set<std::string>& names) {
    std::map<Identity, std::vector<std::pair<Version, std::string>>> archives;
    for (const std::string& file : names) {
        const std::string_view name(file);
        const size_t cut = name.find('_');
        if (cut == std::string_view::npos || !EndsWith(name, ".zip") || EndsWith(name, kMergedSuffix)) continue;
        const std::optional<Identity> identity = ParseIdentity(name.substr(0, cut));
        const std::optional<Version> version = ParseVersion(name.substr(cut + 1, name.size() - cut - 5));
        if (identity && version) archives[*identity].emplace_back(*version, file);
    }
    for (auto& [identity, list] : archives) std::sort(list.begin(), list.end());
    return archives;
}

std::vector<std::pair<Version, std::string>> VersionArchives(int packages, const Identity& identity) {
    const std::string prefix = FormatIdentity(identity) + "_";
    std::vector<std::pair<Version, std::string>> archives;
    ForEachEntry(packages, [&](std::string_view name) {
        if (name.substr(0, prefix.size()) != prefix || !EndsWith(name, ".zip") || EndsWith(name, kMergedSuffix)) return;
        const std::optional<Version> version = ParseVersion(name.substr(prefix.size(), name.size() - prefix.size() - 4));
        if (version) archives.emplace_back(*version, std::string(name));
    });
    std::sort(archives.begin(), archives.end());
    return archives;
}

ZOVRELAY_Status RemoveVersionArchives(int packages, const std::string& packagesPath, const std::vector<std::string>& names,
                                      const Events& events) {
    for (const std::string& name : names) {
        const std::string path = packagesPath + "/" + name;
        struct stat info {};
        const uint64_t size = ::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 ? uint64_t(info.st_size) : 0;
        if (!events.Raise(ZOVRELAY_EVENT_REMOVEBEGIN, path, size, 0)) return kCancelled;
        if (::unlinkat(packages, name.c_str(), 0) != 0 && !events.Raise(ZOVRELAY_EVENT_REMOVEFAILED, path, size, 0))
            return kCancelled;
    }
    return kSuccess;
}

ZOVRELAY_Status ExtractInto(const MergedArchive& archive, const HeldVersion& held, int directory,
                            std::string_view prefix, std::string_view suffix, const std::string& target, bool lock) {
    TemporaryFile temporary;
    ZOVRELAY_Status status = temporary.Create(directory, prefix, suffix, target);
    if (status <= 0) return status;
    if (lock) ::flock(temporary.fd(), LOCK_EX | LOCK_NB);
    FileSink sink(temporary);
    status = archive.Extract(held, sink);
    if (status > 0) status = temporary.ReplaceInto(target);
    return status;
}

void RemoveAbandonedExports(int directory) {
    std::vector<std::string> candidates;
    ForEachEntry(directory, [&](std::string_view name) {
        if (name.size() > kExportSuffix.size() + 1 && name[0] == '.' && EndsWith(name, kExportSuffix))
            candidates.emplace_back(name);
    });
    const int64_t now = int64_t(::time(nullptr));
    for (const std::string& name : candidates) {
        const FileDescriptor fd(OpenFileAt(directory, name));
        struct stat info {};
        if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || now - int64_t(info.st_mtime) < 60 ||
            ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
            continue;
        ::unlinkat(directory, name.c_str(), 0);
    }
}

}  // namespace localrelay
