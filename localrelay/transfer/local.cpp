// Packages of local sources (paths, file://): read in turn with a large buffer; the file system's
// read-ahead overlaps with hashing and writing, and parallel reads of one disk gained nothing
// measurable. A package of a directory source is opened beneath that directory, never through a
// link, and a range shorter than any package is refused, so that a catalog cannot make the relay
// read (or confirm byte by byte) a file outside its source.
#include "transfer/local.h"
#include "transfer/resume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace localrelay {
namespace {

constexpr size_t kLocalBuffer = 64 * 1024;

// The package's file, opened for reading: beneath its source directory when it has one.
int OpenPackage(const Download& d, std::string& path, std::string& why, ZOVRELAY_Status& status) {
    status = kNoSourceReachable;
    if (!LocalPath(d.address, path, &why)) {
        if (why == "unsupported address") status = kUnsupportedAddress;
        return -1;
    }
    if (d.offset != 0 && d.size < kMinimumRange) {
        status = kIntegrityFailed;
        why = path + ": a byte range of " + std::to_string(d.size) + " bytes, below the " +
              std::to_string(kMinimumRange) + " bytes the smallest package takes";
        return -1;
    }
    if (d.root.empty()) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a FIFO cannot hold us
        if (fd < 0) why = path + ": " + std::strerror(errno);
        return fd;
    }
    std::string root;
    int fd = -1;
    why = "outside the source directory";
    if (LocalPath(d.root, root, nullptr) && path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
        (root.back() == '/' || path[root.size()] == '/')) {
        const size_t start = path.find_first_not_of('/', root.size());
        fd = OpenBeneath(root, start == std::string::npos ? "" : path.substr(start), why);
    }
    if (fd < 0) why = path + ": " + why;
    return fd;
}

struct Reading {
    ZOVRELAY_Status status = kSuccess;
    std::string why;
    Failure written;  // the part could not be written
};

// Copies the package's bytes from `fd` into the part; a package inside a file is exactly its
// bytes, a whole file may not run past the size.
Reading Copy(int fd, const std::string& path, Job& job, Outcomes& outcomes, Budget& budget) {
    Download& d = job.d;
    Reading reading;
    std::vector<char> buffer(std::min<uint64_t>(kLocalBuffer, std::max<uint64_t>(budget.ChunkSize(kLocalBuffer), 1)));
    const uint64_t end = d.offset != 0 ? d.offset + d.size : UINT64_MAX;
    for (uint64_t at = d.offset; at < end;) {
        const ssize_t got = ::pread(fd, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), end - at)), off_t(at));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            reading.status = kIoError, reading.why = path + ": " + std::strerror(errno);
            break;
        }
        if (got == 0) break;
        at += uint64_t(got), d.received += uint64_t(got);
        if (uint64_t(got) > d.size - job.part.have()) {
            reading.status = kIntegrityFailed, reading.why = "more bytes than the catalog's size";
            break;
        }
        if (!job.part.Append(buffer.data(), size_t(got))) {
            reading.written = FromErrno(errno);
            reading.status = reading.written.status;
            break;
        }
        if (!outcomes.Progress(job, false)) {
            reading.status = kCancelled;
            break;
        }
        budget.SleepFor(size_t(got));
    }
    return reading;
}

}  // namespace

ZOVRELAY_Status ReadLocal(Job& job, Outcomes& outcomes, Budget& budget) {
    std::string path, why;
    ZOVRELAY_Status refused = kSuccess;
    const int fd = OpenPackage(job.d, path, why, refused);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0) ::close(fd), why = path + ": not a file";
        return outcomes.Finish(job, refused, why, false);
    }
    const Reading reading = Copy(fd, path, job, outcomes, budget);
    ::close(fd);
    if (reading.written.status <= 0) return outcomes.Stopped(job, reading.written);
    if (reading.status == kCancelled || reading.status == kIoError) return reading.status;
    if (reading.status <= 0) return outcomes.Finish(job, reading.status, reading.why, false);
    return outcomes.Verified(job);
}

}  // namespace localrelay
