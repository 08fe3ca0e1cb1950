// Where each entry's bytes lie in a zip file, read from its central directory and local headers
// (ZIP64 included). A merged archive stores its versions uncompressed, so each version is one byte
// range of the file: sources name it by offset, and readers fetch it with a ranged read.
#ifndef LOCALRELAY_ZIPLAYOUT_H
#define LOCALRELAY_ZIPLAYOUT_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace localrelay {

struct EntryRange {
    uint64_t offset = 0;  // of the entry's data in the file
    uint64_t size = 0;    // of its data as stored
    bool stored = false;  // method 0: the data are the entry's bytes themselves
    uint32_t crc = 0;     // the CRC-32 its directory entry states (not kept in the held cache)
    bool operator==(const EntryRange& o) const {
        return offset == o.offset && size == o.size && stored == o.stored && crc == o.crc;
    }
};

// The entries of the zip file open at `fd`, by name; nullopt when it is no well-formed zip file
// (a truncated directory, a header out of the file, an entry's data past the end).
std::optional<std::map<std::string, EntryRange>> ReadEntryRanges(int fd);

}  // namespace localrelay

#endif
