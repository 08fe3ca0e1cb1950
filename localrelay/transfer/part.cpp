// Part files: created exclusively, never through a link, continued only as their record says.
#include "transfer/part.h"
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>
#include <vector>

namespace localrelay {
namespace {

constexpr size_t kHashBuffer = 64 * 1024;
// A part gets its resume record once it holds this much: below, fetching again costs less than
// the record's file (creating files is most of the cost of a small package).
constexpr uint64_t kRecordAfter = 256 * 1024;
constexpr int kCreate = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_RDWR;

// A part created under `name`; whatever has the name (a stale part, a planted link) goes first.
int CreateReplacing(int directory, const std::string& name) {
    int fd = ::openat(directory, name.c_str(), kCreate, 0644);
    if (fd < 0 && errno == EEXIST) {
        ::unlinkat(directory, name.c_str(), 0);
        fd = ::openat(directory, name.c_str(), kCreate, 0644);
    }
    return fd;
}

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
    fd_ = CreateReplacing(directory_, d_.part);
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

PartMaker::PartMaker(int directory, std::vector<std::string> names, bool unnamed)
    : directory_(directory), unnamed_(unnamed ? kUnnamed : kNamed) {
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
    room_.notify_all();
    unnamedStarted_.notify_all();
}

// How a part is made. Created under its name, as Part::Create creates it, while that is quick.
// But ext4 holds a directory for the whole of a creation, finding the inode included, and without
// a journal that means stepping over every inode deleted in the last minutes: a millisecond each
// after a large removal, one creation at a time. Once creations are that slow, parts are made
// unnamed (O_TMPFILE, which holds no directory) and then linked under their name, so that the two
// makers find inodes side by side (where the journal makes that dearer, creations stay quick and
// this never starts). Where the file system cannot make unnamed files or /proc is not there to
// link them, parts are created under their names. Only a stale part is put out of the way:
// anything else under the name is left for the part's own opening (-1).
int PartMaker::Make(const std::string& name) {
    if (unnamed_.load(std::memory_order_relaxed) == kUnnamed) {
        const int fd = ::openat(directory_, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
        if (fd >= 0) {
            char path[40];
            std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
            int linked = ::linkat(AT_FDCWD, path, directory_, name.c_str(), AT_SYMLINK_FOLLOW);
            if (linked != 0 && errno == EEXIST && ::unlinkat(directory_, name.c_str(), 0) == 0)
                linked = ::linkat(AT_FDCWD, path, directory_, name.c_str(), AT_SYMLINK_FOLLOW);
            const int error = errno;
            if (linked == 0) return fd;
            ::close(fd);
            if (error == EEXIST || error == EISDIR) return -1;
        }
        unnamed_ = kNever;
    }
    const auto start = std::chrono::steady_clock::now();
    const int fd = CreateReplacing(directory_, name);
    constexpr auto kSlow = std::chrono::microseconds(250);
    int expected = kNamed;
    if (std::chrono::steady_clock::now() - start > kSlow && ++slow_ >= 8 &&
        unnamed_.compare_exchange_strong(expected, kUnnamed)) {
        const std::lock_guard<std::mutex> lock(mutex_);
        unnamedStarted_.notify_all();  // the second maker starts
    }
    return fd;
}

void PartMaker::Run(bool second) noexcept {
    if (second) {  // it helps only where parts are made unnamed: under names, creations in one
                   // directory go one at a time anyway
        std::unique_lock<std::mutex> lock(mutex_);
        unnamedStarted_.wait(lock, [&] { return stopped_ || unnamed_.load() == kUnnamed; });
    }
    for (;;) {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [&] { return stopped_ || next_ >= slots_.size() || waiting_ + making_ < kAhead; });
        if (stopped_ || next_ >= slots_.size()) return;
        const size_t index = next_++;
        Slot& slot = slots_[index];
        if (slot.state != State::kPending || index_.at(slot.name) != index) continue;
        slot.state = State::kMaking;
        ++making_;
        lock.unlock();
        // A part with a resume record is continued, not made anew.
        struct stat record {};
        const int fd = ::fstatat(directory_, ResumeName(slot.name).c_str(), &record, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT
                           ? Make(slot.name)
                           : -1;
        lock.lock();
        --making_;
        slot.fd = fd;
        slot.state = fd >= 0 ? State::kMade : State::kLeft;
        if (fd >= 0) ++waiting_;
        if (taking_ > 0) made_.notify_all();
    }
}

int PartMaker::Take(const std::string& name) noexcept {
    const auto found = index_.find(name);
    if (found == index_.end()) return -1;
    Slot& slot = slots_[found->second];
    std::unique_lock<std::mutex> lock(mutex_);
    ++taking_;
    made_.wait(lock, [&] { return slot.state != State::kMaking; });
    --taking_;
    const int fd = slot.state == State::kMade ? slot.fd : -1;
    if (fd >= 0) --waiting_;
    slot.state = State::kLeft;
    slot.fd = -1;
    if (fd >= 0 && waiting_ + making_ + 1 == kAhead) room_.notify_all();  // a maker may wait for room
    return fd;
}

}  // namespace localrelay
