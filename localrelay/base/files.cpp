#include "base/files.h"
#include "base/failure.h"
#include "base/status.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <chrono>
#include <vector>

namespace localrelay {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
}

int FileDescriptor::release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

ZOVRELAY_Status FileStatus(int error) { return FromErrno(error).status; }  // one table: failure.cpp

// The status for `error` on the file `name`, whose message then names it ("no space left: server.ini").
ZOVRELAY_Status FailedOn(const std::string& name, int error) {
    const Failure failure = FromErrno(error);
    return Fail(failure.status, failure.reason, name);
}

int OpenDirectoryAt(int directory, const std::string& name) {
    return ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int OpenFileAt(int directory, const std::string& name) {
    const int fd = ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

int OpenOwnFileAt(int directory, const std::string& name, int flags) {
    const int fd = ::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

ZOVRELAY_Status CopyRange(int from, uint64_t offset, uint64_t size, int to, uint64_t at) {
    uint64_t done = 0;
    struct stat info {};
    if (offset % kShareableBlock == 0 && at % kShareableBlock == 0 && ::fstat(from, &info) == 0) {
        // Only a range that ends where the source does may end inside a block.
        const uint64_t length = offset + size == uint64_t(info.st_size) ? size : size / kShareableBlock * kShareableBlock;
        file_clone_range range{from, offset, length, at};
        if (length > 0 && ::ioctl(to, FICLONERANGE, &range) == 0) done = length;
    }
    // The kernel's copy shares blocks too where it can, and otherwise saves a trip through memory.
    bool kernel = true;
    std::vector<char> buffer;
    while (done < size) {
        ssize_t n;
        if (kernel) {
            loff_t in = loff_t(offset + done), out = loff_t(at + done);
            n = ::copy_file_range(from, &in, to, &out, size_t(std::min<uint64_t>(size - done, 1u << 30)), 0);
            if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
                kernel = false;
                continue;
            }
        } else {
            if (buffer.empty()) buffer.resize(256 * 1024);
            n = ::pread(from, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), size - done)), off_t(offset + done));
            for (ssize_t written = 0; n > 0 && written < n;) {
                const ssize_t w = ::pwrite(to, buffer.data() + written, size_t(n - written), off_t(at + done) + written);
                if (w < 0 && errno == EINTR) continue;
                if (w <= 0) return FileStatus(w < 0 ? errno : EIO);
                written += w;
            }
        }
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return FileStatus(n < 0 ? errno : EIO);  // the source ended early
        done += uint64_t(n);
    }
    return kSuccess;
}

std::string RandomName(size_t length) {
    static const char kHex[] = "0123456789abcdef";
    // Without entropy yet (early boot) the clock and the process still vary the names; O_EXCL
    // keeps a collision harmless either way.
    static uint64_t state = uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^ (uint64_t(::getpid()) << 40);
    std::string name;
    while (name.size() < length) {
        uint64_t word = 0;
        if (::getrandom(&word, sizeof word, GRND_NONBLOCK) != ssize_t(sizeof word))
            word = state = state * 6364136223846793005ull + 1442695040888963407ull;
        for (int i = 0; i < 16 && name.size() < length; ++i, word >>= 4) name += kHex[word & 15];
    }
    return name;
}

TemporaryFile::~TemporaryFile() {
    if (!name_.empty()) ::unlinkat(directory_, name_.c_str(), 0);
}

ZOVRELAY_Status TemporaryFile::Create(int directory, std::string_view prefix, std::string_view suffix,
                                      std::string target) {
    target_ = std::move(target);
    for (int attempt = 0; attempt < 16; ++attempt) {
        std::string name = std::string(prefix) + RandomName() + std::string(suffix);
        const int fd = ::openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd >= 0) {
            directory_ = directory;
            name_ = std::move(name);
            if (target_.empty()) target_ = name_;
            fd_ = FileDescriptor(fd);
            return kSuccess;
        }
        if (errno != EEXIST) return FailedOn(target_.empty() ? name : target_, errno);
    }
    return kIoError;
}

ZOVRELAY_Status TemporaryFile::Write(const char* data, size_t size) {
    for (size_t written = 0; written < size;) {
        const ssize_t n = ::write(fd_.get(), data + written, size - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return FailedOn(target_, n < 0 ? errno : ENOSPC);  // nothing written: the disk is full
        written += size_t(n);
    }
    return kSuccess;
}

ZOVRELAY_Status TemporaryFile::Close() {
    if (fd_.get() < 0) return kSuccess;
    const int fd = fd_.release();
    return ::close(fd) == 0 ? kSuccess : FailedOn(target_, errno);
}

// No fsync: a killed run cannot leave a half-written file behind a rename, since the kernel keeps
// what was written. Against power loss the next run re-verifies what changed and replaces what
// fails, so syncing each package (which forces every byte to disk within the mirror) buys little.
ZOVRELAY_Status TemporaryFile::ReplaceInto(const std::string& target) {
    ZOVRELAY_Status status = Close();
    if (status > 0) status = ReplaceAt(directory_, name_, target);
    if (status > 0) Keep();
    return status;
}

int RenameOver(int directory, const std::string& from, const std::string& to) {
    if (::renameat(directory, from.c_str(), directory, to.c_str()) == 0) return 0;
    const int error = errno;
    // A directory planted under the target's name: out of the way when empty, else refused.
    if ((error == EISDIR || error == ENOTEMPTY || error == EEXIST) &&
        ::unlinkat(directory, to.c_str(), AT_REMOVEDIR) == 0 &&
        ::renameat(directory, from.c_str(), directory, to.c_str()) == 0)
        return 0;
    return error;
}

ZOVRELAY_Status ReplaceAt(int directory, const std::string& from, const std::string& to) {
    const int error = RenameOver(directory, from, to);
    return error == 0 ? kSuccess : FailedOn(to, error);
}

ZOVRELAY_Status WriteWholeFileAt(int directory, const std::string& name, const std::string& text) {
    TemporaryFile temporary;
    ZOVRELAY_Status status = temporary.Create(directory, "." + name + ".", ".tmp", name);
    if (status > 0) status = temporary.Write(text.data(), text.size());
    if (status > 0) status = temporary.ReplaceInto(name);
    return status;
}

std::optional<std::string> ReadWholeFileAt(int directory, const std::string& name, size_t limit) {
    const FileDescriptor fd(OpenFileAt(directory, name));
    struct stat info {};
    if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || uint64_t(info.st_size) > limit) return std::nullopt;
    // A byte more than the file holds: the read that finds its end needs no growth (and no copy).
    std::string text(std::min(size_t(info.st_size), limit) + 1, '\0');
    size_t done = 0;
    while (true) {  // to the end, in case it grew since the fstat
        if (done == text.size()) text.resize(std::min(limit + 1, text.size() + 65536));
        const ssize_t n = ::read(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        done += size_t(n);
        if (done > limit) return std::nullopt;
    }
    text.resize(done);
    return text;
}

FileBytes FileBytes::Copy(std::string_view bytes) {
    FileBytes copy;
    copy.data_.reset(new char[bytes.size() + 1]);
    std::memcpy(copy.data_.get(), bytes.data(), bytes.size());
    copy.size_ = bytes.size();
    return copy;
}

std::optional<FileBytes> ReadFileBytesAt(int directory, const std::string& name, size_t limit) {
    const FileDescriptor fd(OpenFileAt(directory, name));
    struct stat info {};
    if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || uint64_t(info.st_size) > limit) return std::nullopt;
    // A byte more than the file holds, so that a file grown since the fstat is told from a whole one.
    FileBytes bytes;
    const size_t room = size_t(info.st_size) + 1;
    bytes.data_.reset(new char[room]);
    while (bytes.size_ < room) {
        const ssize_t n = ::read(fd.get(), bytes.data_.get() + bytes.size_, room - bytes.size_);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return bytes;
        bytes.size_ += size_t(n);
    }
    return std::nullopt;  // it grew while it was read: nothing whole to go by
}

ZOVRELAY_Status WriteChangedFileAt(int directory, const std::string& name, const std::string& text) {
    const std::optional<std::string> now = ReadWholeFileAt(directory, name, text.size());
    return now && *now == text ? kSuccess : WriteWholeFileAt(directory, name, text);
}

bool RemoveAt(int directory, const std::string& name) {
    if (::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT) return true;
    return (errno == EISDIR || errno == EPERM) && ::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace localrelay
