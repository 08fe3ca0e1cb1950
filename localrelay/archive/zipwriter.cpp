#include "archive/zipwriter.h"
#include "base/files.h"
#include "transfer/package.h"
#include "base/status.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <vector>

namespace localrelay {
namespace {

constexpr uint32_t kLocalSignature = 0x04034b50, kCentralSignature = 0x02014b50, kEndSignature = 0x06054b50,
                   kEnd64Signature = 0x06064b50, kLocator64Signature = 0x07064b50;
constexpr uint64_t kLimit32 = 0xFFFFFFFF;  // this value and above go into ZIP64 fields
constexpr uint16_t kZip64Field = 0x0001, kPaddingField = 0xD935;
constexpr uint16_t kNeeded = 20, kNeeded64 = 45;
constexpr uint16_t kMadeByUnix = 3 << 8;
constexpr size_t kCopyBuffer = 256 * 1024;

void Put(std::string& out, uint64_t value, int width) {
    for (int i = 0; i < width; ++i) out.push_back(char((value >> (8 * i)) & 0xFF));
}

// The padding that moves data starting at `data` to a multiple of `align`: none, or at least
// the four bytes of an extra field's own header.
uint64_t Padding(uint64_t data, uint64_t align) {
    if (align == 0) return 0;
    uint64_t pad = (align - data % align) % align;
    if (pad != 0 && pad < 4) pad += align;
    return pad;
}

uint64_t FixedHeaderSize(const std::string& name, uint64_t size) {
    return 30 + name.size() + (size >= kLimit32 ? 20 : 0);
}

}  // namespace

uint64_t LocalHeaderSize(const std::string& name, uint64_t size, uint64_t at, uint64_t align) {
    const uint64_t fixed = FixedHeaderSize(name, size);
    return fixed + Padding(at + fixed, align);
}

ZipWriter::ZipWriter(int fd, uint64_t end) : fd_(fd), end_(end) {
    const time_t now = ::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    const int year = std::max(local.tm_year + 1900, 1980);
    time_ = uint16_t((local.tm_hour << 11) | (local.tm_min << 5) | (local.tm_sec / 2));
    date_ = uint16_t(((year - 1980) << 9) | ((local.tm_mon + 1) << 5) | local.tm_mday);
}

std::string ZipWriter::LocalHeader(const Entry& entry, uint64_t align) const {
    const bool wide = entry.size >= kLimit32;
    const uint64_t fixed = FixedHeaderSize(entry.name, entry.size);
    const uint64_t pad = Padding(entry.header + fixed, align);
    std::string out;
    Put(out, kLocalSignature, 4);
    Put(out, wide ? kNeeded64 : kNeeded, 2);
    Put(out, 0, 2);  // flags
    Put(out, 0, 2);  // stored
    Put(out, time_, 2);
    Put(out, date_, 2);
    Put(out, entry.crc, 4);
    Put(out, wide ? kLimit32 : entry.size, 4);
    Put(out, wide ? kLimit32 : entry.size, 4);
    Put(out, entry.name.size(), 2);
    Put(out, (wide ? 20 : 0) + pad, 2);
    out += entry.name;
    if (wide) {
        Put(out, kZip64Field, 2);
        Put(out, 16, 2);
        Put(out, entry.size, 8);
        Put(out, entry.size, 8);
    }
    if (pad != 0) {
        Put(out, kPaddingField, 2);
        Put(out, pad - 4, 2);
        out.append(size_t(pad - 4), '\0');
    }
    return out;
}

ZOVRELAY_Status ZipWriter::Write(const char* bytes, size_t size, uint64_t at) {
    for (size_t done = 0; done < size;) {
        const ssize_t n = ::pwrite(fd_, bytes + done, size - done, off_t(at + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return FileStatus(n < 0 ? errno : EIO);
        done += size_t(n);
    }
    return kSuccess;
}

ZOVRELAY_Status ZipWriter::Adopt(const std::string& name, uint64_t at, uint64_t size, uint32_t crc, uint64_t align) {
    entries_.push_back(Entry{name, at, size, crc, 0});
    const std::string header = LocalHeader(entries_.back(), align);
    entries_.back().data = at + header.size();
    return Write(header.data(), header.size(), at);
}

ZOVRELAY_Status ZipWriter::Add(const std::string& name, const std::string& data) {
    Entry entry{name, end_, data.size(), Crc32(0, data.data(), data.size()), 0};
    const std::string header = LocalHeader(entry, 0);
    entry.data = end_ + header.size();
    const std::string bytes = header + data;
    ZOVRELAY_Status status = Write(bytes.data(), bytes.size(), end_);
    if (status <= 0) return status;
    entries_.push_back(entry);
    end_ += header.size() + data.size();
    return kSuccess;
}

ZOVRELAY_Status ZipWriter::Copy(const std::string& name, int from, uint64_t offset, uint64_t size,
                                const std::string& sha256, uint64_t align) {
    Entry entry{name, end_, size, 0, 0};
    const uint64_t data = entry.data = end_ + LocalHeaderSize(name, size, end_, align);
    const bool share = align != 0;  // read to check, then let CopyRange share the blocks
    CheckingSink checking(size);
    std::vector<char> buffer(kCopyBuffer);
    ZOVRELAY_Status status = kSuccess;
    for (uint64_t done = 0; status > 0 && done < size;) {
        const ssize_t n = ::pread(from, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), size - done)),
                                  off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            status = kIntegrityFailed;  // the file ends before the entry does
            break;
        }
        if (!checking.Write(buffer.data(), size_t(n))) status = kIntegrityFailed;
        entry.crc = Crc32(entry.crc, buffer.data(), size_t(n));
        if (status > 0 && !share) status = Write(buffer.data(), size_t(n), data + done);
        done += uint64_t(n);
    }
    if (status > 0) status = checking.Check(sha256);
    if (status > 0 && share) status = CopyRange(from, offset, size, fd_, data);
    const std::string header = LocalHeader(entry, align);
    if (status > 0) status = Write(header.data(), header.size(), entry.header);
    if (status <= 0) {
        if (::ftruncate(fd_, off_t(end_)) != 0 && status == kIntegrityFailed) status = FileStatus(errno);
        return status;
    }
    entries_.push_back(entry);
    end_ = data + size;
    return kSuccess;
}

std::map<std::string, EntryRange> ZipWriter::Ranges() const {
    std::map<std::string, EntryRange> ranges;
    for (const Entry& entry : entries_) ranges[entry.name] = EntryRange{entry.data, entry.size, true, entry.crc};
    return ranges;
}

// The central directory's entries, as they follow the last entry's bytes.
std::string ZipWriter::CentralDirectory() const {
    std::string out;
    for (const Entry& entry : entries_) {
        const bool wideSize = entry.size >= kLimit32, wideOffset = entry.header >= kLimit32;
        std::string extra;
        if (wideSize || wideOffset) {
            Put(extra, kZip64Field, 2);
            Put(extra, (wideSize ? 16 : 0) + (wideOffset ? 8 : 0), 2);
            if (wideSize) Put(extra, entry.size, 8), Put(extra, entry.size, 8);
            if (wideOffset) Put(extra, entry.header, 8);
        }
        const uint16_t needed = wideSize || wideOffset ? kNeeded64 : kNeeded;
        Put(out, kCentralSignature, 4);
        Put(out, kMadeByUnix | needed, 2);
        Put(out, needed, 2);  // at least what the local header says: readers check that
        Put(out, 0, 2);
        Put(out, 0, 2);
        Put(out, time_, 2);
        Put(out, date_, 2);
        Put(out, entry.crc, 4);
        Put(out, wideSize ? kLimit32 : entry.size, 4);
        Put(out, wideSize ? kLimit32 : entry.size, 4);
        Put(out, entry.name.size(), 2);
        Put(out, extra.size(), 2);
        Put(out, 0, 2);  // comment
        Put(out, 0, 2);  // disk
        Put(out, 0, 2);  // internal attributes
        Put(out, uint64_t(0100644) << 16, 4);
        Put(out, wideOffset ? kLimit32 : entry.header, 4);
        out += entry.name;
        out += extra;
    }
    return out;
}

// The end of central directory record, preceded by its ZIP64 forms when a field overflows.
void ZipWriter::PutEnd(std::string& out, uint64_t directory, uint64_t length) const {
    const uint64_t count = entries_.size();
    const bool wide = directory >= kLimit32 || length >= kLimit32 || count >= 0xFFFF;
    if (wide) {
        const uint64_t record = directory + length;
        Put(out, kEnd64Signature, 4);
        Put(out, 44, 8);
        Put(out, kMadeByUnix | kNeeded64, 2);
        Put(out, kNeeded64, 2);
        Put(out, 0, 4);
        Put(out, 0, 4);
        Put(out, count, 8);
        Put(out, count, 8);
        Put(out, length, 8);
        Put(out, directory, 8);
        Put(out, kLocator64Signature, 4);
        Put(out, 0, 4);
        Put(out, record, 8);
        Put(out, 1, 4);
    }
    Put(out, kEndSignature, 4);
    Put(out, 0, 4);  // this disk, the directory's disk
    Put(out, wide ? 0xFFFF : count, 2);
    Put(out, wide ? 0xFFFF : count, 2);
    Put(out, wide ? kLimit32 : length, 4);
    Put(out, wide ? kLimit32 : directory, 4);
    Put(out, 0, 2);
}

ZOVRELAY_Status ZipWriter::Finish() {
    std::string out = CentralDirectory();
    PutEnd(out, end_, out.size());
    const ZOVRELAY_Status status = Write(out.data(), out.size(), end_);
    if (status > 0) end_ += out.size();
    // Whatever lay beyond (a longer file we reuse) is no part of the archive.
    if (status > 0 && ::ftruncate(fd_, off_t(end_)) != 0) return FileStatus(errno);
    return status;
}

}  // namespace localrelay
