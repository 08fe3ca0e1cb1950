#include "archive/ziplayout.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace localrelay {
namespace {

constexpr uint32_t kEndSignature = 0x06054b50, kEnd64Signature = 0x06064b50, kLocator64Signature = 0x07064b50;
constexpr uint32_t kCentralSignature = 0x02014b50, kLocalSignature = 0x04034b50;
constexpr uint64_t kDirectoryLimit = 64u << 20;  // far beyond any merged archive's few entries

uint64_t Little(const std::string& bytes, size_t at, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = (value << 8) | uint8_t(bytes[at + size_t(i)]);
    return value;
}

bool ReadAt(int fd, uint64_t offset, size_t size, std::string& bytes) {
    bytes.assign(size, '\0');
    for (size_t done = 0; done < size;) {
        const ssize_t n = ::pread(fd, bytes.data() + done, size - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

struct Directory {
    uint64_t count = 0, size = 0, offset = 0;
};

// The central directory's place, from the end record (or its ZIP64 form); nullopt when the file
// has none that makes sense.
std::optional<Directory> FindDirectory(int fd, uint64_t fileSize) {
    // The end record is in the last 22 bytes plus a comment of up to 64 KiB.
    const uint64_t tail = std::min<uint64_t>(fileSize, 22 + 0xFFFF);
    std::string bytes;
    if (!ReadAt(fd, fileSize - tail, size_t(tail), bytes)) return std::nullopt;
    size_t end = bytes.size() - 22 + 1;
    do {
        --end;
        if (Little(bytes, end, 4) == kEndSignature && end + 22 + Little(bytes, end + 20, 2) == bytes.size()) break;
    } while (end > 0);
    if (Little(bytes, end, 4) != kEndSignature) return std::nullopt;
    Directory directory{Little(bytes, end + 10, 2), Little(bytes, end + 12, 4), Little(bytes, end + 16, 4)};
    const uint64_t endOffset = fileSize - tail + end;
    if (directory.count == 0xFFFF || directory.size == 0xFFFFFFFF || directory.offset == 0xFFFFFFFF) {
        std::string locator, end64;
        if (endOffset < 20 || !ReadAt(fd, endOffset - 20, 20, locator) || Little(locator, 0, 4) != kLocator64Signature)
            return std::nullopt;
        const uint64_t at = Little(locator, 8, 8);
        if (at > fileSize || !ReadAt(fd, at, 56, end64) || Little(end64, 0, 4) != kEnd64Signature) return std::nullopt;
        directory = Directory{Little(end64, 32, 8), Little(end64, 40, 8), Little(end64, 48, 8)};
    }
    if (directory.size > kDirectoryLimit || directory.offset > fileSize || directory.size > fileSize - directory.offset)
        return std::nullopt;
    return directory;
}

// The central directory entry at `at`: its range (checked against its local header) and the
// size of the entry; nullopt for an entry that lies.
std::optional<std::pair<EntryRange, size_t>> ReadEntry(int fd, uint64_t fileSize, const std::string& directory, size_t at) {
    if (at + 46 > directory.size() || Little(directory, at, 4) != kCentralSignature) return std::nullopt;
    const size_t nameLength = Little(directory, at + 28, 2), extraLength = Little(directory, at + 30, 2),
                 commentLength = Little(directory, at + 32, 2);
    if (at + 46 + nameLength + extraLength + commentLength > directory.size()) return std::nullopt;
    EntryRange range;
    range.stored = Little(directory, at + 10, 2) == 0;
    range.crc = uint32_t(Little(directory, at + 16, 4));
    uint64_t uncompressed = Little(directory, at + 24, 4);
    range.size = Little(directory, at + 20, 4);
    uint64_t local = Little(directory, at + 42, 4);
    // ZIP64 extra field: the values that overflowed, in this order.
    for (size_t x = at + 46 + nameLength; x + 4 <= at + 46 + nameLength + extraLength;) {
        const uint64_t id = Little(directory, x, 2), length = Little(directory, x + 2, 2);
        size_t v = x + 4;
        const size_t fieldEnd = v + length;
        if (fieldEnd > at + 46 + nameLength + extraLength) return std::nullopt;
        if (id == 0x0001) {
            for (uint64_t* value : {&uncompressed, &range.size, &local}) {
                if (*value != 0xFFFFFFFF) continue;
                if (v + 8 > fieldEnd) return std::nullopt;
                *value = Little(directory, v, 8);
                v += 8;
            }
        }
        x = fieldEnd;
    }
    std::string header;
    if (local > fileSize || !ReadAt(fd, local, 30, header) || Little(header, 0, 4) != kLocalSignature) return std::nullopt;
    range.offset = local + 30 + Little(header, 26, 2) + Little(header, 28, 2);
    if (range.offset > fileSize || range.size > fileSize - range.offset) return std::nullopt;
    if (range.stored && uncompressed != range.size) return std::nullopt;
    return std::make_pair(range, 46 + nameLength + extraLength + commentLength);
}

}  // namespace

std::optional<std::map<std::string, EntryRange>> ReadEntryRanges(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || info.st_size < 22) return std::nullopt;
    const uint64_t fileSize = uint64_t(info.st_size);
    const std::optional<Directory> place = FindDirectory(fd, fileSize);
    std::string directory;
    if (!place || !ReadAt(fd, place->offset, size_t(place->size), directory)) return std::nullopt;
    std::map<std::string, EntryRange> entries;
    size_t at = 0;
    for (uint64_t i = 0; i < place->count; ++i) {
        const auto entry = ReadEntry(fd, fileSize, directory, at);
        if (!entry) return std::nullopt;
        entries[directory.substr(at + 46, Little(directory, at + 28, 2))] = entry->first;
        at += entry->second;
    }
    return entries;
}

}  // namespace localrelay
