// Part files: created exclusively, never through a link, continued only as their record says.
#include "transfer/part.h"
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace localrelay {
namespace {

constexpr size_t kHashBuffer = 64 * 1024;
// A part gets its resume record once it holds this much: below, fetching again costs less than
// the record's file (creating files is most of the cost of a small package).
constexpr uint64_t kRecordAfter = 256 * 1024;

}  // namespace

void Part::Reset() {
    digest_ = std::make_unique<Sha256>();
    crc_ = 0;
    have_ = 0;
    digestChecked_ = false;
}

// The part a record describes, hashed first so that the whole is verified as one.
bool Part::Reopen() {
    if (!ReadResumeRecord(directory_, d_, validators)) return false;
    fd_ = OpenOwnFileAt(directory_, d_.part);
    struct stat info {};
    if (fd_ >= 0 && ::fstat(fd_, &info) == 0 && uint64_t(info.st_size) >= d_.headroom &&
        uint64_t(info.st_size) - d_.headroom <= d_.size) {
        const uint64_t held = uint64_t(info.st_size) - d_.headroom;
        std::vector<char> buffer(kHashBuffer);
        while (have_ < held) {
            const ssize_t got = ::pread(fd_, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), held - have_)),
                                        off_t(d_.headroom + have_));
            if (got <= 0) break;
            digest_->Update(buffer.data(), size_t(got));
            crc_ = Crc32(crc_, buffer.data(), size_t(got));
            have_ += uint64_t(got);
        }
        if (have_ == held) {
            recorded_ = true;
            d_.resumed = have_;
            return true;
        }
    }
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    Reset();
    ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
    return false;
}

// Whatever has the name (a stale part, a planted link) goes; its record goes with it.
bool Part::Create() {
    validators = {};
    constexpr int kCreate = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_RDWR;
    fd_ = ::openat(directory_, d_.part.c_str(), kCreate, 0644);
    if (fd_ < 0 && errno == EEXIST) {
        ::unlinkat(directory_, d_.part.c_str(), 0);
        fd_ = ::openat(directory_, d_.part.c_str(), kCreate, 0644);
    }
    if (fd_ < 0 && errno == EEXIST) {
        // Something that cannot be removed has the name (a full directory): use a fresh one.
        const std::string base = d_.part.substr(0, d_.part.size() - std::string(".part").size());
        for (int attempt = 0; fd_ < 0 && errno == EEXIST && attempt < 16; ++attempt) {
            d_.part = base + "." + RandomName() + ".part";
            fd_ = ::openat(directory_, d_.part.c_str(), kCreate, 0644);
        }
    }
    return fd_ >= 0;
}

bool Part::Open(bool resumable) {
    Reset();
    if (resumable && Reopen()) return true;
    return Create();
}

bool Part::Append(const char* data, size_t size) {
    if (!WriteAll(fd_, data, size, d_.headroom + have_)) return false;
    digest_->Update(data, size);
    crc_ = Crc32(crc_, data, size);
    have_ += size;
    return true;
}

bool Part::Restart() {
    const bool emptied = ::ftruncate(fd_, 0) == 0;
    ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
    recorded_ = false;
    validators = {};
    Reset();
    return emptied;
}

void Part::RecordIfWorth() {
    if (recorded_ || have_ < kRecordAfter || validators.empty()) return;
    recorded_ = WriteResumeRecord(directory_, d_, validators);
}

bool Part::Intact() {
    if (have_ != d_.size) return false;
    if (!digestChecked_) digestChecked_ = digest_->HexDigest() == d_.sha256;
    return digestChecked_;
}

bool Part::Close() {
    ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    return closed;
}

void Part::Release(bool keep) {
    if (fd_ < 0) return;
    ::close(fd_);
    fd_ = -1;
    if (!keep || !recorded_ || have_ == 0) {
        ::unlinkat(directory_, d_.part.c_str(), 0);
        ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
    }
}

}  // namespace localrelay
