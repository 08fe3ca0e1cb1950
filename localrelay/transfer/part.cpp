// Part files: created exclusively, never through a link, continued only as their record says.
#include "transfer/part.h"
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
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
    if (maker_ != nullptr && (fd_ = maker_->Take(d_.part)) >= 0) {
        validators = {};
        made_ = true;
        return true;
    }
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
    if (recorded_ || !made_) ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
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
    if (recorded_ || !made_) ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
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
        if (recorded_ || !made_) ::unlinkat(directory_, ResumeName(d_.part).c_str(), 0);
    }
}

PartMaker::PartMaker(int directory, std::vector<std::string> names) : directory_(directory) {
    slots_.reserve(names.size());
    for (std::string& name : names) slots_.push_back(Slot{std::move(name)});
    for (size_t i = 0; i < slots_.size(); ++i) index_.emplace(slots_[i].name, i);  // a repeated name: its first
}

PartMaker::~PartMaker() {
    for (const Slot& slot : slots_)
        if (slot.state == State::kMade) {
            ::close(slot.fd);
            ::unlinkat(directory_, slot.name.c_str(), 0);
        }
}

void PartMaker::Stop() noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

// As Part::Create makes it, but only where nothing is in the way but a stale part: whatever else
// (a resume record, a name that cannot be removed) is left for the part's own opening.
void PartMaker::Run() noexcept {
    constexpr int kCreate = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_RDWR;
    for (size_t next = 0; next < slots_.size(); ++next) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return stopped_ || waiting_ < kAhead; });
        Slot& slot = slots_[next];
        if (stopped_) return;
        if (slot.state != State::kPending || index_.at(slot.name) != next) continue;
        slot.state = State::kMaking;
        lock.unlock();
        int fd = -1;
        struct stat record {};
        if (::fstatat(directory_, ResumeName(slot.name).c_str(), &record, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
            fd = ::openat(directory_, slot.name.c_str(), kCreate, 0644);
            if (fd < 0 && errno == EEXIST && ::unlinkat(directory_, slot.name.c_str(), 0) == 0)
                fd = ::openat(directory_, slot.name.c_str(), kCreate, 0644);
        }
        lock.lock();
        slot.fd = fd;
        slot.state = fd >= 0 ? State::kMade : State::kLeft;
        if (fd >= 0) ++waiting_;
        changed_.notify_all();
    }
}

int PartMaker::Take(const std::string& name) noexcept {
    const auto found = index_.find(name);
    if (found == index_.end()) return -1;
    Slot& slot = slots_[found->second];
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return slot.state != State::kMaking; });
    const int fd = slot.state == State::kMade ? slot.fd : -1;
    if (fd >= 0) --waiting_;
    slot.state = State::kLeft;
    slot.fd = -1;
    changed_.notify_all();
    return fd;
}

}  // namespace localrelay
