// Local transfers (absolute paths and file:// URLs) and the dispatch to HTTP.
#include "transfer/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <memory>
#include <vector>

namespace localrelay {
namespace {

constexpr size_t kBufferSize = 64 * 1024;

bool StartsWithNoCase(const std::string& text, const char* prefix) {
    for (size_t i = 0; prefix[i] != '\0'; ++i) {
        if (i >= text.size()) return false;
        char c = text[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != prefix[i]) return false;
    }
    return true;
}

void SetError(std::string* error, std::string text) {
    if (error != nullptr) *error = std::move(text);
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Holds transfers to maxBandwidth KiB/s on average: after each chunk, waits until the bytes so
// far are due.
class Pacer {
public:
    explicit Pacer(int64_t kibPerSecond) : rate_(kibPerSecond > 0 ? double(kibPerSecond) * 1024.0 : 0.0) {}
    size_t ChunkSize() const {
        // About a quarter second of data per read, so a low limit does not arrive in bursts.
        if (rate_ == 0.0) return kBufferSize;
        return std::clamp(static_cast<size_t>(rate_ / 4), size_t(1024), kBufferSize);
    }
    void Sent(size_t bytes) {
        if (rate_ == 0.0) return;
        sent_ += bytes;
        const auto due = start_ + std::chrono::duration<double>(double(sent_) / rate_);
        if (std::chrono::steady_clock::now() < due)
            std::this_thread::sleep_until(std::chrono::time_point_cast<std::chrono::steady_clock::duration>(due));
    }

private:
    double rate_;
    uint64_t sent_ = 0;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

ZOVRELAY_Status FetchLocal(const std::string& path, const TransferSettings& settings, ChunkSink& sink,
                           std::string* error) {
    // Non-blocking, so that a FIFO in the source cannot hold the operation; regular files ignore it.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        SetError(error, errno == ENOENT ? "no such file" : std::strerror(errno));
        return kNoSourceReachable;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        SetError(error, "not a file");
        return kNoSourceReachable;
    }
    if (settings.length > 0 && ::lseek(fd, off_t(settings.offset), SEEK_SET) < 0) {
        SetError(error, path + ": " + std::strerror(errno));
        return kIoError;
    }
    uint64_t left = settings.length > 0 ? settings.length : UINT64_MAX;
    Pacer pacer(settings.maxBandwidth);
    std::vector<char> buffer(pacer.ChunkSize());
    for (;;) {
        if (left == 0) return kSuccess;
        const ssize_t got = ::read(fd, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), left)));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            SetError(error, std::strerror(errno));
            return kIoError;
        }
        if (got == 0) return kSuccess;
        if (left != UINT64_MAX) left -= uint64_t(got);
        if (!sink.Write(buffer.data(), static_cast<size_t>(got))) {
            SetError(error, sink.stopReason);
            return sink.stopStatus;
        }
        pacer.Sent(static_cast<size_t>(got));
    }
}

class TextSink : public ChunkSink {
public:
    TextSink(std::string& text, size_t limit) : text_(text), limit_(limit) { stopStatus = kInvalidCatalog; }
    bool Write(const char* data, size_t size) override {
        if (size > limit_ - text_.size()) return false;
        text_.append(data, size);
        return true;
    }

private:
    std::string& text_;
    size_t limit_;
};

}  // namespace

bool LocalPath(const std::string& address, std::string& path, std::string* error) {
    // A NUL would end the path the kernel sees early, as an escaped one (%00) would.
    if (address.find('\0') != std::string::npos) {
        SetError(error, "a NUL byte in the address");
        return false;
    }
    if (!StartsWithNoCase(address, "file://")) {
        if (address.find("://") != std::string::npos) {
            SetError(error, "unsupported address");
            return false;
        }
        path = address;  // a plain path; a relative one is taken from the working directory
        if (path.empty()) SetError(error, "empty address");
        return !path.empty();
    }
    std::string rest = address.substr(7);
    if (StartsWithNoCase(rest, "localhost/")) rest.erase(0, 9);
    if (rest.empty() || rest[0] != '/') {
        SetError(error, "a file URL names no remote host: " + address);
        return false;
    }
    path.clear();
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] != '%') {
            path += rest[i];
            continue;
        }
        const int high = i + 2 < rest.size() ? HexValue(rest[i + 1]) : -1;
        const int low = high >= 0 ? HexValue(rest[i + 2]) : -1;
        if (low < 0 || (high == 0 && low == 0)) {
            SetError(error, "bad escape in " + address);
            return false;
        }
        path += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

bool IsHttpAddress(const std::string& address) {
    return StartsWithNoCase(address, "http://") || StartsWithNoCase(address, "https://");
}

std::string JoinAddress(const std::string& address, const std::string& relative) {
    size_t skip = 0;
    while (skip < relative.size() && relative[skip] == '/') ++skip;
    if (!address.empty() && address.back() == '/') return address + relative.substr(skip);
    return address + "/" + relative.substr(skip);
}

ZOVRELAY_Status Fetch(const std::string& address, const TransferSettings& settings, ChunkSink& sink,
                      std::string* error, Attempt* attempt) {
    if (StartsWithNoCase(address, "http://") || StartsWithNoCase(address, "https://"))
        return FetchHttp(address, settings, sink, error, attempt);
    std::string path;
    if (!LocalPath(address, path, error))
        return address.find("://") != std::string::npos && !StartsWithNoCase(address, "file://") ? kUnsupportedAddress
                                                                                                   : kNoSourceReachable;
    return FetchLocal(path, settings, sink, error);
}

void FetchFirstText(const std::vector<std::string>& urls, const TransferSettings& settings,
                    std::vector<std::string>& texts, std::vector<Fetched>& outcomes, size_t limit) {
    texts.assign(urls.size(), std::string());
    std::vector<std::unique_ptr<TextSink>> sinks;
    std::vector<ChunkSink*> pointers;
    for (std::string& text : texts) {
        sinks.push_back(std::make_unique<TextSink>(text, limit));
        pointers.push_back(sinks.back().get());
    }
    Revalidation revalidation;  // no validators: only caches are asked to revalidate
    TransferSettings catalog = settings;
    if (catalog.revalidation == nullptr) catalog.revalidation = &revalidation;
    FetchFirstHttp(urls, catalog, pointers, outcomes);
    for (size_t i = 0; i < urls.size(); ++i) {
        if (outcomes[i].status == kInvalidCatalog) outcomes[i].error = "larger than " + std::to_string(limit) + " bytes";
        if (outcomes[i].status <= 0) texts[i].clear();
    }
}

ZOVRELAY_Status FetchText(const std::string& address, const TransferSettings& settings, std::string& text,
                          size_t limit, std::string* error, bool* transient) {
    constexpr int kAttempts = 5;
    constexpr long kRetryAfterCap = 30;
    ZOVRELAY_Status status = kSuccess;
    Attempt attempt;
    // A local catalog's size is known: one allocation, where growing by doublings took up to three
    // times its size while a large catalog was read.
    std::string path;
    struct stat info {};
    if (!IsHttpAddress(address) && LocalPath(address, path, nullptr) && ::stat(path.c_str(), &info) == 0 &&
        S_ISREG(info.st_mode) && uint64_t(info.st_size) <= limit)
        text.reserve(size_t(info.st_size));
    Revalidation revalidation;
    TransferSettings catalog = settings;
    if (catalog.revalidation == nullptr) catalog.revalidation = &revalidation;
    for (int tries = 1;; ++tries) {
        text.clear();
        TextSink sink(text, limit);
        attempt = Attempt{};
        status = Fetch(address, catalog, sink, error, &attempt);
        if (status > 0 || !attempt.transient || tries == kAttempts) break;
        const long pause = attempt.retryAfter >= 0 ? std::min(attempt.retryAfter, kRetryAfterCap) : 1L << (tries - 1);
        // No attempt starts after the catalog's deadline.
        const auto none = std::chrono::steady_clock::time_point{};
        if (settings.deadline != none && std::chrono::steady_clock::now() + std::chrono::seconds(pause) >= settings.deadline)
            break;
        std::this_thread::sleep_for(std::chrono::seconds(pause));
    }
    if (transient != nullptr) *transient = status <= 0 && attempt.transient;
    if (status == kInvalidCatalog) SetError(error, "larger than " + std::to_string(limit) + " bytes");
    if (status <= 0) text.clear();
    return status;
}

}  // namespace localrelay

namespace localrelay {
namespace {

std::string Refusal(int error) {
    if (error == ELOOP) return "a symbolic link, not followed in a directory source";
    if (error == EXDEV) return "outside the source directory";
    return error == ENOENT ? "no such file" : std::strerror(error);
}

int OpenComponentWise(int directory, const std::string& relative, int& error) {
    std::vector<std::string> names;
    for (size_t at = 0; at <= relative.size();) {
        size_t end = relative.find('/', at);
        if (end == std::string::npos) end = relative.size();
        const std::string name = relative.substr(at, end - at);
        if (name == "..") return error = EXDEV, -1;
        if (!name.empty() && name != ".") names.push_back(name);
        at = end + 1;
    }
    if (names.empty()) return error = EISDIR, -1;
    int current = ::dup(directory);
    for (size_t i = 0; current >= 0 && i < names.size(); ++i) {
        const bool last = i + 1 == names.size();
        const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | (last ? O_NONBLOCK : O_DIRECTORY);
        const int next = ::openat(current, names[i].c_str(), flags);
        error = errno;
        struct stat info {};  // O_DIRECTORY meets a link before O_NOFOLLOW does
        if (next < 0 && error == ENOTDIR && ::fstatat(current, names[i].c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(info.st_mode))
            error = ELOOP;
        ::close(current);
        current = next;
    }
    return current;
}

}  // namespace

int OpenBeneath(const std::string& root, const std::string& relative, std::string& why, bool componentWise) {
    const int directory = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        why = root + ": " + std::strerror(errno);
        return -1;
    }
    int fd = -1, error = ENOSYS;
#if defined(SYS_openat2) && defined(RESOLVE_BENEATH)
    if (!componentWise) {
        struct open_how how {};
        how.flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        fd = int(::syscall(SYS_openat2, directory, relative.c_str(), &how, sizeof how));
        error = errno;
    }
#endif
    // No openat2 in this kernel, or a sandbox that refuses it: one component at a time.
    if (fd < 0 && (error == ENOSYS || error == EPERM)) fd = OpenComponentWise(directory, relative, error);
    ::close(directory);
    if (fd < 0) why = Refusal(error);
    return fd;
}

}  // namespace localrelay
