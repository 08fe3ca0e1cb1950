#include "package.h"
#include "files.h"
#include "status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace localrelay {
namespace {

constexpr uint64_t kProgressStep = 64 * 1024;

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context_);
        throw std::bad_alloc();
    }
}

Sha256::~Sha256() { EVP_MD_CTX_free(context_); }

void Sha256::Update(const void* data, size_t size) { EVP_DigestUpdate(context_, data, size); }

std::string Sha256::HexDigest() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_, digest, &length);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 15];
    }
    return hex;
}

bool CheckingSink::Write(const char* data, size_t size) {
    // A source that sends more than the catalog promised is wrong already; do not store the rest.
    if (size > expectedSize_ - received_) {
        stopStatus = kIntegrityFailed;
        return false;
    }
    digest_.Update(data, size);
    received_ += size;
    return true;
}

ZOVRELAY_Status CheckingSink::Check(const std::string& sha256) {
    if (received_ != expectedSize_) return kIntegrityFailed;
    return digest_.HexDigest() == sha256 ? kSuccess : kIntegrityFailed;
}

PackageSink::PackageSink(int directory, std::string name, uint64_t expectedSize, const Events& events,
                         std::string information)
    : CheckingSink(expectedSize), directory_(directory), name_(std::move(name)), events_(events),
      information_(std::move(information)) {}

PackageSink::~PackageSink() {
    if (fd_ >= 0) ::close(fd_);
    if (created_ && !keep_) ::unlinkat(directory_, name_.c_str(), 0);
}

ZOVRELAY_Status PackageSink::Open() {
    RemoveAt(directory_, name_);
    for (int attempt = 0; attempt < 16; ++attempt) {
        fd_ = ::openat(directory_, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd_ >= 0) return created_ = true, kSuccess;
        if (errno != EEXIST) break;
        name_ = "." + RandomName() + name_;  // something we cannot remove is in the way
    }
    return FileStatus(errno);
}

bool PackageSink::Write(const char* data, size_t size) {
    if (!CheckingSink::Write(data, size)) return false;
    for (size_t written = 0; written < size;) {
        const ssize_t n = ::write(fd_, data + written, size - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            stopStatus = kIoError;
            return false;
        }
        written += static_cast<size_t>(n);
    }
    if (received_ - reported_ >= kProgressStep) {
        reported_ = received_;
        reportedOnce_ = true;
        if (!events_.Raise(ZOVRELAY_EVENT_PROGRESS, information_, expectedSize_, received_)) {
            stopStatus = kCancelled;
            return false;
        }
    }
    return true;
}

ZOVRELAY_Status PackageSink::Finish(const std::string& sha256) {
    if ((!reportedOnce_ || reported_ != received_) &&
        !events_.Raise(ZOVRELAY_EVENT_PROGRESS, information_, expectedSize_, received_))
        return kCancelled;
    const ZOVRELAY_Status checked = Check(sha256);
    if (checked <= 0) return checked;
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    return closed ? kSuccess : kIoError;
}

}  // namespace localrelay
