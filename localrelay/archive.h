// Merged archives, packages/<identity>_merged.zip: the authoritative store of one component. A
// "manifest" entry lists the held versions (package path, size, SHA-256) and the products that
// contain the component; one stored (uncompressed) entry per version holds the package's bytes.
#ifndef LOCALRELAY_ARCHIVE_H
#define LOCALRELAY_ARCHIVE_H

#include "catalog.h"
#include "transfer.h"

#include <zip.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace localrelay {

struct HeldVersion {
    Version version;
    std::string path;  // the package's path in the catalog it came from
    uint64_t size = 0;
    std::string sha256;
};

struct ProductRef {
    Identity identity;
    Version version;
};

struct Manifest {
    Identity identity;
    Section section = Section::kPattern;
    std::vector<HeldVersion> versions;  // newest first
    std::vector<ProductRef> products;   // by identity, one version each

    const HeldVersion* Find(const Version& version) const;
};

std::string MergedArchiveName(const Identity& identity);                          // "<identity>_merged.zip"
std::string VersionArchiveName(const Identity& identity, const Version& version);  // "<identity>_<version>.zip"
// The archive entry of a held version: "<version>/<package file name>".
std::string EntryName(const HeldVersion& held);

std::string FormatManifest(const Manifest& manifest);
std::optional<Manifest> ParseManifest(std::string_view text);

// An open merged archive, for reading.
class MergedArchive {
public:
    // nullptr when the file is missing, is no zip archive, or has no valid manifest.
    // `thorough` adds libzip's consistency checks of every entry's headers.
    static std::unique_ptr<MergedArchive> Open(const std::string& path, bool thorough = false);
    MergedArchive(const MergedArchive&) = delete;
    MergedArchive& operator=(const MergedArchive&) = delete;
    ~MergedArchive();

    const Manifest& manifest() const { return manifest_; }
    zip_t* handle() const { return archive_; }

    // Streams the version's bytes into `sink`, then checks their size and SHA-256 against the
    // manifest: kIntegrityFailed on any mismatch, the sink's stopStatus when it stopped.
    ZOVRELAY_Status Extract(const HeldVersion& held, ChunkSink& sink) const;
    ZOVRELAY_Status Verify(const HeldVersion& held) const;

private:
    MergedArchive(zip_t* archive, Manifest manifest) : archive_(archive), manifest_(std::move(manifest)) {}
    zip_t* archive_;
    Manifest manifest_;
};

// Writes, at `temporary`, a merged archive of `manifest`: each version from `files` (a verified
// package on disk) when listed there, otherwise copied from `previous`. The result is reopened
// and every entry verified before this returns success; the caller then renames it into place.
ZOVRELAY_Status WriteMergedArchive(const std::string& temporary, const Manifest& manifest,
                                   const std::map<Version, std::string>& files, const MergedArchive* previous);

}  // namespace localrelay

#endif
