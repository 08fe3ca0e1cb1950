// Resume records and the part files a later run may continue.
#include "transfer/resume.h"
#include "base/files.h"
#include "transfer/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

namespace localrelay {
namespace {

const std::string kPartSuffix = ".part", kRecordSuffix = ".resume.part";

bool EndsWith(const std::string& name, const std::string& suffix) {
    return name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::string ResumeName(const std::string& part) {
    return part.substr(0, part.size() - std::min(part.size(), kPartSuffix.size())) + kRecordSuffix;
}

std::string FormatResumeRecord(const Download& d, const Validators& validators) {
    return "zovrelay-resume 2\n" + d.address + "\n" + std::to_string(d.offset) + " " + std::to_string(d.size) + " " +
           d.sha256 + " " + std::to_string(d.headroom) + "\n" + validators.etag + "\n" + validators.modified + "\n";
}

bool ParseResumeRecord(const std::string& text, const Download& d, Validators& validators) {
    const std::string head = FormatResumeRecord(d, {});
    const size_t fixed = head.size() - 2;  // up to the validators
    if (text.compare(0, fixed, head, 0, fixed) != 0) return false;
    const size_t lineEnd = text.find('\n', fixed);
    if (lineEnd == std::string::npos || text.size() < lineEnd + 2 || text.back() != '\n') return false;
    validators.etag = text.substr(fixed, lineEnd - fixed);
    validators.modified = text.substr(lineEnd + 1, text.size() - lineEnd - 2);
    return !validators.empty();
}

bool ReadResumeRecord(int directory, const Download& d, Validators& validators) {
    const int fd = OpenOwnFileAt(directory, ResumeName(d.part), O_RDONLY);
    if (fd < 0) return false;
    char buffer[8192];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (got <= 0 || size_t(got) == sizeof buffer) return false;
    return ParseResumeRecord(std::string(buffer, size_t(got)), d, validators);
}

bool WriteResumeRecord(int directory, const Download& d, const Validators& validators) {
    const std::string record = FormatResumeRecord(d, validators);
    const std::string name = ResumeName(d.part);
    ::unlinkat(directory, name.c_str(), 0);
    const int fd = ::openat(directory, name.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_WRONLY, 0644);
    const bool written = fd >= 0 && WriteAll(fd, record.data(), record.size(), 0);
    if (fd >= 0) ::close(fd);
    return written;
}

bool WriteAll(int fd, const char* data, size_t size, uint64_t at) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, size, off_t(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n, size -= size_t(n), at += uint64_t(n);
    }
    return true;
}

uint64_t ResumableBytes(int packagesDirectory, const Download& download) {
    Validators validators;
    if (!IsHttpAddress(download.address) || !ReadResumeRecord(packagesDirectory, download, validators)) return 0;
    struct stat info {};
    if (::fstatat(packagesDirectory, download.part.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
        return 0;
    const uint64_t held = uint64_t(info.st_size);
    return held > download.headroom ? std::min<uint64_t>(held - download.headroom, download.size) : 0;
}

bool IsResumablePart(int packagesDirectory, const std::string& name) {
    auto exists = [&](const std::string& other) {
        struct stat info {};
        return ::fstatat(packagesDirectory, other.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
    };
    if (EndsWith(name, kRecordSuffix)) return exists(name.substr(0, name.size() - kRecordSuffix.size()) + kPartSuffix);
    if (EndsWith(name, kPartSuffix)) return exists(ResumeName(name));
    return false;
}

bool RemoveUnplannedParts(int packagesDirectory, const std::set<std::string>& names, const std::vector<Download>& planned) {
    std::set<std::string> keep;
    for (const Download& d : planned) {
        if (!d.keep) continue;
        keep.insert(d.part);
        keep.insert(ResumeName(d.part));
    }
    bool removed = false;
    for (const std::string& name : names) {
        if (name.size() < 6 || name[0] != '.' || !EndsWith(name, kPartSuffix) || keep.count(name)) continue;
        struct stat info {};
        if (::fstatat(packagesDirectory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
            removed |= ::unlinkat(packagesDirectory, name.c_str(), 0) == 0;
    }
    return removed;
}

}  // namespace localrelay
