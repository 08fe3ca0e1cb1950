// What each merged archive held when it was last read, so that a run with nothing to do need not
// open them: without it every run opened every merged archive several times (libzip reads the
// central directory, then the manifest), and a run's cost followed the bytes held rather than the
// catalog. The record is the hidden file ".held" in the repository's root.
//
// An entry is used only for the very file it was read from: same size, inode, device,
// modification and change time to the nanosecond, read a clock tick after that change (file times
// move in ticks, so a change within the same tick could leave the same times behind; see
// RecordedAfterChange) and not in the future. Anything else, and a record that is damaged in any way, means the
// archive is opened and read again. A writer replaces an archive by rename, which brings another
// inode and time, so an archive written since is read again on its next lookup.
#ifndef LOCALRELAY_HELDCACHE_H
#define LOCALRELAY_HELDCACHE_H

#include "archive/archive.h"
#include "archive/ziplayout.h"

#include <cstdint>
#include <map>
#include <string>

namespace localrelay {

inline constexpr const char* kHeldCacheName = ".held";

// One merged archive as read at `read`: its manifest and the byte ranges of its versions' entries
// (by entry name; a version whose entry is missing has none).
struct CachedArchive {
    FileIdentity file;
    int64_t read = 0;  // nanoseconds since the epoch: the file had this identity then
    Manifest manifest;
    std::map<std::string, EntryRange> ranges;
    bool checked = false;  // found to be this file during the operation (not recorded)
};

class HeldCache {
public:
    HeldCache() = default;
    // The record in `root`; empty when it is missing or damaged anywhere.
    static HeldCache Read(int root);

    // The merged archive `name` in `packages` as it is now (never through a link): the recorded
    // entry when it is still that file, otherwise what the archive holds, read now and recorded.
    // nullptr when there is no regular file with a valid manifest there. The file is looked at
    // once: the holder of the repository's lock, the only writer, forgets what it rewrites.
    const CachedArchive* Find(int packages, const std::string& name);
    // Records what the writer knows of an archive it wrote and saw unchanged at `entry.read`.
    void Put(const std::string& name, CachedArchive entry);
    // Forgets where a version of `name` lies (one that failed a read-back): nothing serves it.
    void DropRange(const std::string& name, const std::string& entry);
    // Drops what is known of `name`: its next lookup looks at the file again.
    void Forget(const std::string& name);

    // Whether source.ini in `root` is still the one written from exactly these entries: the
    // record names its identity, and every archive the record knew was found unchanged (call it
    // after looking up every archive). A run that knows so need not format the catalog again to
    // compare it.
    bool SourceCatalogCurrent(int root) const;

    // Writes the record when it changed, keeping the archives found since it was read.
    // `catalogsWritten`: source.ini was just written from these entries, and is recorded as such.
    ZOVRELAY_Status Write(int root, bool catalogsWritten = false);

private:
    std::map<std::string, CachedArchive> entries_;
    struct CatalogRecord {
        FileIdentity file;
        int64_t at = 0;
    };
    std::optional<CatalogRecord> catalog_;  // source.ini as written from the entries
    bool changed_ = false;
    int64_t now_ = 0;
};

std::string FormatHeldCache(const std::map<std::string, CachedArchive>& entries, const std::string& catalogLine = "");
// nullopt for anything but a whole, well-formed record.
std::optional<std::map<std::string, CachedArchive>> ParseHeldCache(std::string_view text);
// The record's optional line after its header, "catalog <size> <inode> <device> <mtime-ns>
// <ctime-ns> <at-ns>": source.ini's identity when written from the entries that follow.
std::string FormatCatalogLine(const FileIdentity& file, int64_t at);
bool ParseCatalogLine(std::string_view line, FileIdentity& file, int64_t& at);

}  // namespace localrelay

#endif
