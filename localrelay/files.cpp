#include "files.h"
#include "failure.h"
#include "status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace localrelay {
TemporaryFile::~TemporaryFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
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

// No fsync: a killed run cannot leave a half-written file behind a rename, since the kernel keeps
// what was written. Against power loss the next run re-verifies every archive it touches and
// replaces what fails, so syncing each package (which forces every byte to disk within the mirror)
// buys little for its cost.
ZOVRELAY_Status ReplaceFile(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) == 0) return kSuccess;
    const Failure failure = FromErrno(errno);
    return Fail(failure.status, failure.reason, to);
}

ZOVRELAY_Status WriteWholeFile(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        const Failure failure = FromErrno(errno);
        return Fail(failure.status, failure.reason, path);
    }
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
    const int error = written == text.size() ? 0 : errno;
    const bool closed = ::close(fd) == 0;
    if (written == text.size() && closed) return kSuccess;
    const Failure failure = FromErrno(error != 0 ? error : errno != 0 ? errno : EIO);
    return Fail(failure.status, failure.reason, path);
}

}  // namespace localrelay
