// Opening a repository and taking its lock.
#include "repository/lock.h"
#include "base/failure.h"
#include "base/status.h"
#include "repository/repository.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

namespace localrelay {

// A repository that is not there yet reads as empty to a reader that must not create it: its
// descriptors stay closed, and every lookup through them finds nothing.
ZOVRELAY_Status OpenMissingRepository(const std::string& path, Repository& repository) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error) return Fail(kRepositoryNotAccessible, "repository not accessible", path);
    repository.path = absolute.lexically_normal().string();
    return kSuccess;
}

ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository, bool create) {
    std::error_code ignored;
    // Whatever went wrong shows again when the directory is opened.
    if (create) std::filesystem::create_directories(path, ignored);

    // The path itself is the caller's to choose (a link to the real place is fine); what lies
    // inside it is never followed.
    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto refused = [&](const char* what) {
        return Fail(kRepositoryNotAccessible, std::string(what) + " (" + FromErrno(errno).reason + ")", path);
    };
    if (directory.get() < 0 && !create && errno == ENOENT) return OpenMissingRepository(path, repository);
    if (directory.get() < 0) return refused("repository not accessible");
    if (create && ::mkdirat(directory.get(), "packages", 0777) != 0 && errno != EEXIST)
        return refused("no packages/ in the repository");
    FileDescriptor packages(OpenDirectoryAt(directory.get(), "packages"));
    if (packages.get() < 0 && !(!create && errno == ENOENT)) return refused("no packages/ in the repository");

    // Absolute, so that a later change of working directory cannot move the repository.
    const std::unique_ptr<char, decltype(&std::free)> absolute(::realpath(path.c_str(), nullptr), &std::free);
    if (!absolute) return errno == ENOMEM ? kOutOfMemory : kRepositoryNotAccessible;

    repository.path = absolute.get();
    repository.directory = std::move(directory);
    repository.packages = std::move(packages);
    return kSuccess;
}

namespace {

// Opens the lock file without following a link and without writing a byte: a link or an empty
// directory planted under its name is removed and the file made afresh; a hard link to a file
// elsewhere is harmless, since nothing is ever written to it.
int OpenLockFile(int directory) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int fd = ::openat(directory, kLockName, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
        struct stat info {};
        if (fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) return fd;
        if (fd >= 0) ::close(fd);
        if (!RemoveAt(directory, kLockName)) break;
    }
    return -1;
}

}  // namespace

ZOVRELAY_Status LockRepository(Repository& repository) {
    if (repository.lock.get() >= 0) return kSuccess;
    FileDescriptor lock(OpenLockFile(repository.directory.get()));
    if (lock.get() < 0) return kRepositoryNotAccessible;
    // flock, not fcntl locks: two contexts of one process conflict just as two processes do.
    // Another writer holds it: the message names the lock, which tools such as lsof trace to it.
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? Fail(kRepositoryBusy, "repository is busy", repository.path + "/" + kLockName)
                                    : kRepositoryNotAccessible;
    repository.lock = std::move(lock);
    // Under the lock, so no running writer can own them.
    RemoveStaleTemporaries(repository.directory.get(), -1);
    return kSuccess;
}

void UnlockRepository(Repository& repository) { repository.lock = FileDescriptor(); }

}  // namespace localrelay
