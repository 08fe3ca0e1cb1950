#include "repository/heldcache.h"
#include "base/files.h"
#include "repository/repository.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <ctime>

namespace localrelay {
namespace {

// "zovrelay-held 2", then optionally "catalog <size> <inode> <device> <mtime-ns> <ctime-ns> <at-ns>"
// (source.ini as written from the entries that follow), then per archive:
//   archive <name> <size> <inode> <device> <mtime-ns> <ctime-ns> <read-at-ns> <manifest bytes>
//   <the manifest's text>
//   range <offset> <size> <stored 0|1>   (or "range none"), one per manifest version in its order
// Version 1 lacked the change time: such a record is not read, and each archive is opened once.
constexpr std::string_view kHeader = "zovrelay-held 2\n";
constexpr size_t kLimit = size_t(1) << 30;

// Reads the record's text from the front, one line or field at a time; any misstep fails it all.
struct Reader {
    std::string_view text;
    bool ok = true;

    std::string_view Line() {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos) return ok = false, std::string_view();
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        return line;
    }
    std::string_view Bytes(uint64_t count) {
        if (count > text.size()) return ok = false, std::string_view();
        const std::string_view bytes = text.substr(0, size_t(count));
        text.remove_prefix(size_t(count));
        return bytes;
    }
};

std::string_view Word(std::string_view& line) {
    const size_t end = line.find(' ');
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    return word;
}

template <class Number>
bool Take(std::string_view& line, Number& number) {
    const std::string_view word = Word(line);
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return !word.empty() && error == std::errc() && end == word.data() + word.size();
}

}  // namespace

std::string FormatHeldCache(const std::map<std::string, CachedArchive>& entries, const std::string& catalogLine) {
    std::string text(kHeader);
    text += catalogLine;
    for (const auto& [name, entry] : entries) {
        const std::string manifest = FormatManifest(entry.manifest);
        text += "archive " + name + " " + std::to_string(entry.file.size) + " " + std::to_string(entry.file.inode) +
                " " + std::to_string(entry.file.device) + " " + std::to_string(entry.file.modified) + " " +
                std::to_string(entry.file.changed) + " " + std::to_string(entry.read) + " " + std::to_string(manifest.size()) + "\n" + manifest;
        for (const HeldVersion& held : entry.manifest.versions) {
            const auto range = entry.ranges.find(EntryName(held));
            text += range == entry.ranges.end() ? std::string("range none\n")
                                                : "range " + std::to_string(range->second.offset) + " " +
                                                      std::to_string(range->second.size) + " " +
                                                      (range->second.stored ? "1\n" : "0\n");
        }
    }
    return text;
}

std::optional<std::map<std::string, CachedArchive>> ParseHeldCache(std::string_view text) {
    Reader reader{text};
    if (reader.Line() != kHeader.substr(0, kHeader.size() - 1)) return std::nullopt;
    if (reader.text.substr(0, 8) == "catalog ") {
        FileIdentity file;
        int64_t at = 0;
        if (!ParseCatalogLine(reader.Line(), file, at)) return std::nullopt;
    }
    std::map<std::string, CachedArchive> entries;
    while (reader.ok && !reader.text.empty()) {
        std::string_view line = reader.Line();
        CachedArchive entry;
        uint64_t bytes = 0;
        if (Word(line) != "archive") return std::nullopt;
        const std::string name(Word(line));
        if (name.empty() || !Take(line, entry.file.size) || !Take(line, entry.file.inode) ||
            !Take(line, entry.file.device) || !Take(line, entry.file.modified) || !Take(line, entry.file.changed) ||
            !Take(line, entry.read) ||
            !Take(line, bytes) || !line.empty())
            return std::nullopt;
        std::optional<Manifest> manifest = ParseManifest(reader.Bytes(bytes));
        if (!manifest) return std::nullopt;
        entry.manifest = std::move(*manifest);
        for (const HeldVersion& held : entry.manifest.versions) {
            std::string_view range = reader.Line();
            EntryRange at;
            int stored = 0;
            if (Word(range) != "range") return std::nullopt;
            if (range == "none") continue;
            // A range past the file's end cannot be the file's: the record is not this repository's.
            if (!Take(range, at.offset) || !Take(range, at.size) || !Take(range, stored) || !range.empty() ||
                stored < 0 || stored > 1 || at.offset > entry.file.size || at.size > entry.file.size - at.offset)
                return std::nullopt;
            at.stored = stored == 1;
            entry.ranges[EntryName(held)] = at;
        }
        if (!reader.ok) return std::nullopt;
        // Written in order: each entry goes at the end, and a name out of order is looked up.
        if (entries.empty() || entries.rbegin()->first < name) entries.emplace_hint(entries.end(), name, std::move(entry));
        else if (!entries.emplace(name, std::move(entry)).second) return std::nullopt;
    }
    if (!reader.ok) return std::nullopt;
    return entries;
}

std::string FormatCatalogLine(const FileIdentity& file, int64_t at) {
    return "catalog " + std::to_string(file.size) + " " + std::to_string(file.inode) + " " + std::to_string(file.device) +
           " " + std::to_string(file.modified) + " " + std::to_string(file.changed) + " " + std::to_string(at) + "\n";
}

bool ParseCatalogLine(std::string_view line, FileIdentity& file, int64_t& at) {
    return Word(line) == "catalog" && Take(line, file.size) && Take(line, file.inode) && Take(line, file.device) &&
           Take(line, file.modified) && Take(line, file.changed) && Take(line, at) && line.empty();
}

HeldCache HeldCache::Read(int root) {
    HeldCache cache;
    cache.now_ = NowNanoseconds();
    const std::optional<std::string> text = ReadWholeFileAt(root, kHeldCacheName, kLimit);
    std::optional<std::map<std::string, CachedArchive>> entries = text ? ParseHeldCache(*text) : std::nullopt;
    if (!entries) return cache;
    cache.entries_ = std::move(*entries);
    const size_t first = text->find('\n'), second = text->find('\n', first + 1);  // both there: it parsed
    CatalogRecord catalog;
    if (ParseCatalogLine(std::string_view(*text).substr(first + 1, second - first - 1), catalog.file, catalog.at))
        cache.catalog_ = catalog;
    return cache;
}

bool HeldCache::SourceCatalogCurrent(int root) const {
    if (!catalog_ || changed_) return false;
    for (const auto& [name, entry] : entries_)
        if (!entry.checked) return false;  // an archive gone since
    struct stat info {};
    return ::fstatat(root, kSourceCatalogName, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
           IdentityOf(info) == catalog_->file && RecordedAfterChange(catalog_->file, catalog_->at, now_);
}

const CachedArchive* HeldCache::Find(int packages, const std::string& name) {
    if (now_ == 0) now_ = NowNanoseconds();
    const auto found = entries_.find(name);
    if (found != entries_.end() && found->second.checked) return &found->second;
    struct stat info {};
    if (::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) {
        Forget(name);
        return nullptr;
    }
    if (found != entries_.end()) {
        CachedArchive& entry = found->second;
        if (entry.file == IdentityOf(info) && RecordedAfterChange(entry.file, entry.read, now_)) {
            entry.checked = true;
            return &entry;
        }
    }
    const int64_t read = NowNanoseconds();  // before the reading: never later than what it saw
    const std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages, name);
    if (archive == nullptr) {
        Forget(name);
        return nullptr;
    }
    CachedArchive entry{archive->file(), read, archive->manifest(), {}, true};
    // The layout is read from the same file; one renamed over it meanwhile is never recorded.
    const FileDescriptor fd(OpenFileAt(packages, name));
    const std::optional<std::map<std::string, EntryRange>> ranges = fd.get() >= 0 ? ReadEntryRanges(fd.get()) : std::nullopt;
    if (ranges && FileIdentityOf(fd.get()) == archive->file()) {
        for (const HeldVersion& held : entry.manifest.versions) {
            const auto range = ranges->find(EntryName(held));
            if (range != ranges->end()) entry.ranges.insert(*range);
        }
    } else {
        entry.read = 0;  // never trusted
    }
    changed_ = true;
    return &(entries_[name] = std::move(entry));
}

void HeldCache::Put(const std::string& name, CachedArchive entry) {
    entry.checked = true;
    entries_[name] = std::move(entry);
    changed_ = true;
}

void HeldCache::DropRange(const std::string& name, const std::string& entry) {
    const auto found = entries_.find(name);
    if (found != entries_.end() && found->second.ranges.erase(entry) != 0) changed_ = true;
}

void HeldCache::Forget(const std::string& name) { changed_ = entries_.erase(name) != 0 || changed_; }

ZOVRELAY_Status HeldCache::Write(int root, bool catalogsWritten) {
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (entry->second.checked) {
            ++entry;
            continue;
        }
        entry = entries_.erase(entry);
        changed_ = true;
    }
    std::optional<CatalogRecord> catalog;
    struct stat info {};
    if (catalogsWritten && ::fstatat(root, kSourceCatalogName, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
        catalog = CatalogRecord{IdentityOf(info), NowNanoseconds()};
        if (catalog_ && catalog_->file == catalog->file) catalog->at = catalog_->at;
        // Just written: a look a clock tick later vouches for it (see RecordedAfterChange).
        const int64_t wait = catalog->file.changed + TimeTick(catalog->file) - catalog->at;
        if (wait > 0 && wait <= 100000000) {  // a coarse file system's second is not waited
            const timespec pause{0, long(wait)};
            ::nanosleep(&pause, nullptr);
            catalog->at = NowNanoseconds();
            if (::fstatat(root, kSourceCatalogName, &info, AT_SYMLINK_NOFOLLOW) != 0 || !(IdentityOf(info) == catalog->file))
                catalog.reset();
        }
    }
    changed_ = changed_ || catalog.has_value() != catalog_.has_value() ||
               (catalog && (!(catalog->file == catalog_->file) || catalog->at != catalog_->at));
    catalog_ = catalog;
    if (!changed_) return kSuccess;
    changed_ = false;
    return WriteWholeFileAt(root, kHeldCacheName, FormatHeldCache(entries_, catalog_ ? FormatCatalogLine(catalog_->file, catalog_->at) : ""));
}

}  // namespace localrelay
