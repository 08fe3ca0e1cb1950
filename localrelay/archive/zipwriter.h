// Writing merged archives ourselves. A version's bytes are written once: the download's part file
// is laid out as the new archive's first entry (a reserved local header, then the package), and
// the archive grows around it: the header is filled in once the download verified, the other kept
// versions, the manifest and the central directory are appended, and the file is renamed into
// place. libzip can only copy data that is already on disk into a new file, which wrote every
// package twice. Entries are stored (uncompressed), as ZIP64 where a size or offset needs it.
#ifndef LOCALRELAY_ZIPWRITER_H
#define LOCALRELAY_ZIPWRITER_H

#include "archive/ziplayout.h"
#include "transfer/package.h"
#include "zovrelay.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace localrelay {

// The bytes a stored entry's local header takes, data following. With `align` (a power of two, 0
// for none) the header is padded so that the data start at a multiple of it when the header
// starts at `at`: file systems share aligned blocks between files (reflinks).
uint64_t LocalHeaderSize(const std::string& name, uint64_t size, uint64_t at = 0, uint64_t align = 0);

// Appends stored entries to the open file `fd`, from offset `end`, then the central directory.
// Nothing is renamed or removed here: the caller owns the file and its name.
class ZipWriter {
public:
    ZipWriter(int fd, uint64_t end);

    // An entry whose data (`size` bytes, this CRC) are in the file already, after a local header
    // reserved at `at` of exactly LocalHeaderSize(name, size, at, align) bytes: the header is
    // written into the reservation.
    ZOVRELAY_Status Adopt(const std::string& name, uint64_t at, uint64_t size, uint32_t crc, uint64_t align = 0);
    ZOVRELAY_Status Add(const std::string& name, const std::string& data);
    // Copies `size` bytes from `offset` of the file `from`, checking them against the size and
    // SHA-256 they must have: kIntegrityFailed when they differ, and then nothing of the entry
    // stays (the file is cut back). With `align`, the data start at a multiple of it and whole
    // blocks are shared with `from` where the file system can (see CopyRange).
    ZOVRELAY_Status Copy(const std::string& name, int from, uint64_t offset, uint64_t size, const std::string& sha256,
                         uint64_t align = 0);
    // The central directory and end records; the file is complete after this.
    ZOVRELAY_Status Finish();
    // Where each entry's data lie, as written: what reading the finished file's layout would say.
    std::map<std::string, EntryRange> Ranges() const;

private:
    struct Entry {
        std::string name;
        uint64_t header = 0, size = 0;
        uint32_t crc = 0;
        uint64_t data = 0;  // where its data start
    };
    ZOVRELAY_Status Write(const char* bytes, size_t size, uint64_t at);
    std::string CentralDirectory() const;
    void PutEnd(std::string& out, uint64_t directory, uint64_t length) const;
    std::string LocalHeader(const Entry& entry, uint64_t align) const;

    int fd_;
    uint64_t end_;
    uint16_t time_ = 0, date_ = 0;  // DOS time stamp of every entry
    std::vector<Entry> entries_;
};

}  // namespace localrelay

#endif
