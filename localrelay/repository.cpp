#include "repository.h"
#include "downloader.h"
#include "files.h"
#include "package.h"
#include "status.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

namespace localrelay {
namespace {

constexpr std::string_view kIndexTemporary = ".server.ini.tmp";
constexpr std::string_view kMergedSuffix = "_merged.zip";

bool EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Calls `visit` with the name of every entry of a directory; quietly nothing when it cannot be read.
template <class Visit>
void ForEachEntry(DIR* directory, Visit&& visit) {
    if (directory == nullptr) return;
    while (const dirent* entry = ::readdir(directory)) visit(std::string_view(entry->d_name));
    ::closedir(directory);
}

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

std::string MergedTemporaryName(const Identity& identity) { return "." + FormatIdentity(identity) + "_merged.tmp"; }

void RemoveStaleTemporaries(int repositoryDirectory) {
    ::unlinkat(repositoryDirectory, std::string(kIndexTemporary).c_str(), 0);
    const int packages = ::openat(repositoryDirectory, "packages", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (packages < 0) return;
    const int listing = ::dup(packages);
    ForEachEntry(listing >= 0 ? ::fdopendir(listing) : nullptr, [&](std::string_view name) {
        const std::string file(name);
        struct stat info {};
        // A part with its resume record is kept: the next mirror continues it, and removes it
        // when it no longer wants it.
        if (IsTemporaryName(name) && !IsResumablePart(packages, file) && ::fstatat(packages, file.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode))
            ::unlinkat(packages, file.c_str(), 0);
    });
    ::close(packages);
}

std::map<Identity, Manifest> ReadHeld(const std::string& packages) {
    std::map<Identity, Manifest> held;
    ForEachEntry(::opendir(packages.c_str()), [&](std::string_view name) {
        if (!EndsWith(name, kMergedSuffix)) return;
        const std::optional<Identity> identity = ParseIdentity(name.substr(0, name.size() - kMergedSuffix.size()));
        if (!identity) return;
        const std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages + "/" + std::string(name));
        if (archive != nullptr && archive->manifest().identity == *identity && !archive->manifest().versions.empty())
            held.emplace(*identity, archive->manifest());
    });
    return held;
}

ZOVRELAY_Status WriteIndex(const std::string& repository, const std::map<Identity, Manifest>& held) {
    Catalog index;
    std::map<std::pair<Identity, Version>, std::vector<Identity>> products;
    for (const auto& [identity, manifest] : held) {
        const HeldVersion& newest = manifest.versions.front();
        index.components.push_back(Component{manifest.section, identity, newest.version,
                                             "packages/" + VersionArchiveName(identity, newest.version), newest.size,
                                             newest.sha256});
        for (const ProductRef& product : manifest.products)
            products[{product.identity, product.version}].push_back(identity);
    }
    for (auto& [product, components] : products) index.products.push_back(Product{product.first, product.second, components});

    TemporaryFile temporary(repository + "/" + std::string(kIndexTemporary));
    ZOVRELAY_Status status = WriteWholeFile(temporary.path(), FormatCatalog(index));
    if (status > 0) status = ReplaceFile(temporary.path(), repository + "/server.ini");
    if (status > 0) temporary.Release();
    return status;
}

std::vector<std::pair<Version, std::string>> VersionArchives(const std::string& packages, const Identity& identity) {
    const std::string prefix = FormatIdentity(identity) + "_";
    std::vector<std::pair<Version, std::string>> archives;
    ForEachEntry(::opendir(packages.c_str()), [&](std::string_view name) {
        if (name.substr(0, prefix.size()) != prefix || !EndsWith(name, ".zip") || EndsWith(name, kMergedSuffix)) return;
        const std::optional<Version> version = ParseVersion(name.substr(prefix.size(), name.size() - prefix.size() - 4));
        if (version) archives.emplace_back(*version, std::string(name));
    });
    std::sort(archives.begin(), archives.end());
    return archives;
}

ZOVRELAY_Status PruneVersionArchives(const std::string& packages, const Identity& identity, size_t keep,
                                     const Events& events) {
    const std::vector<std::pair<Version, std::string>> archives = VersionArchives(packages, identity);
    for (size_t i = 0; i + keep < archives.size(); ++i) {
        const std::string path = packages + "/" + archives[i].second;
        struct stat info {};
        const uint64_t size = ::stat(path.c_str(), &info) == 0 ? uint64_t(info.st_size) : 0;
        if (!events.Raise(ZOVRELAY_EVENT_REMOVEBEGIN, path, size, 0)) return kCancelled;
        if (::unlink(path.c_str()) != 0 && !events.Raise(ZOVRELAY_EVENT_REMOVEFAILED, path, size, 0))
            return kCancelled;
    }
    return kSuccess;
}

ZOVRELAY_Status ExtractToFile(const MergedArchive& archive, const HeldVersion& held, const std::string& temporary,
                              const std::string& target) {
    const Events none;
    PackageSink sink(temporary, held.size, none, held.path);
    ZOVRELAY_Status status = sink.Open();
    if (status > 0) status = archive.Extract(held, sink);
    if (status > 0) status = sink.Finish(held.sha256);
    if (status > 0) status = ReplaceFile(temporary, target);
    if (status > 0) sink.Release();
    return status;
}

}  // namespace localrelay
