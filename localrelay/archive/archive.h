// Merged archives, packages/<identity>_merged.zip: the authoritative store of one component. A
// "manifest" entry lists the held versions (package path, size, SHA-256) and the products that
// contain the component; one stored (uncompressed) entry per version holds the package's bytes.
#ifndef LOCALRELAY_ARCHIVE_H
#define LOCALRELAY_ARCHIVE_H

#include "catalog/catalog.h"
#include "base/files.h"
#include "transfer/transfer.h"

#include <zip.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace localrelay {

// What tells one file from its replacement: a rename brings another inode, a rewrite in place
// another size or modification time, and any change at all another change time (ctime), which
// unlike the modification time no caller can set back.
struct FileIdentity {
    uint64_t size = 0, inode = 0, device = 0;
    int64_t modified = 0;  // nanoseconds since the epoch
    int64_t changed = 0;   // nanoseconds since the epoch
    bool operator==(const FileIdentity& o) const {
        return size == o.size && inode == o.inode && device == o.device && modified == o.modified &&
               changed == o.changed;
    }
};

FileIdentity IdentityOf(const struct stat& info);
int64_t NowNanoseconds();  // the wall clock, as file times count

// A record made at `at` (nanoseconds) of a file with this identity vouches for it only when it was
// made after the clock tick of the file's last change: a change within that tick could leave the
// same times behind. Change times move by at most a few milliseconds on file systems that keep
// nanoseconds, by whole seconds on those that do not (times ending in zero nanoseconds).
int64_t TimeTick(const FileIdentity& file);
bool RecordedAfterChange(const FileIdentity& file, int64_t at, int64_t now);

// The identity of the file open at `fd`; nullopt when it cannot be read.
std::optional<FileIdentity> FileIdentityOf(int fd);

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

// The entry that holds the manifest.
inline constexpr const char* kManifestEntry = "manifest";

std::string MergedArchiveName(const Identity& identity);                          // "<identity>_merged.zip"
std::string VersionArchiveName(const Identity& identity, const Version& version);  // "<identity>_<version>.zip"
// The archive entry of a held version: "<version>/<package file name>".
std::string EntryName(const HeldVersion& held);

std::string FormatManifest(const Manifest& manifest);
std::optional<Manifest> ParseManifest(std::string_view text);

// An open merged archive, for reading.
class MergedArchive {
public:
    // The archive `name` under `directory`, opened once (never through a link): every later
    // read sees this file, even when a writer renames another over the name meanwhile. nullptr
    // when it is missing, no regular file, no zip archive, or has no valid manifest. `thorough`
    // adds libzip's consistency checks of every entry's headers.
    static std::unique_ptr<MergedArchive> Open(int directory, const std::string& name, bool thorough = false);
    MergedArchive(const MergedArchive&) = delete;
    MergedArchive& operator=(const MergedArchive&) = delete;
    ~MergedArchive();

    const Manifest& manifest() const { return manifest_; }
    const FileIdentity& file() const { return file_; }
    zip_t* handle() const { return archive_; }
    int fd() const { return fd_.get(); }  // the same file, for raw reads of stored entries

    // Streams the version's bytes into `sink`, then checks their size and SHA-256 against the
    // manifest: kIntegrityFailed on any mismatch, the sink's stopStatus when it stopped.
    ZOVRELAY_Status Extract(const HeldVersion& held, ChunkSink& sink) const;
    ZOVRELAY_Status Verify(const HeldVersion& held) const;

private:
    MergedArchive(zip_t* archive, FileDescriptor fd, Manifest manifest, FileIdentity file)
        : archive_(archive), fd_(std::move(fd)), manifest_(std::move(manifest)), file_(file) {}
    zip_t* archive_;
    FileDescriptor fd_;
    Manifest manifest_;
    FileIdentity file_;
};

}  // namespace localrelay

#endif
