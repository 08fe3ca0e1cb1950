// Opening and closing relay contexts, and the settings made on them.
#include "context.h"
#include "failure.h"
#include "library.h"
#include "repository.h"
#include "status.h"
#include "wide.h"

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

// Failing to open it costs nothing but the sharing: the context works without it.
NamedSemaphore::NamedSemaphore() : handle_(sem_open("/zovrelay", O_CREAT, 0666, 1)) {}

NamedSemaphore::~NamedSemaphore() {
    if (handle_ != SEM_FAILED) sem_close(handle_);
}

ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository) {
    std::error_code ignored;
    // Whatever went wrong shows again when the directory is opened.
    std::filesystem::create_directories(path, ignored);

    // The path itself is the caller's to choose (a link to the real place is fine); what lies
    // inside it is never followed.
    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto refused = [&](const char* what) {
        return Fail(kRepositoryNotAccessible, std::string(what) + " (" + FromErrno(errno).reason + ")", path);
    };
    if (directory.get() < 0) return refused("repository not accessible");
    if (::mkdirat(directory.get(), "packages", 0777) != 0 && errno != EEXIST) return refused("no packages/ in the repository");
    FileDescriptor packages(OpenDirectoryAt(directory.get(), "packages"));
    if (packages.get() < 0) return refused("no packages/ in the repository");

    // Absolute, so that a later change of working directory cannot move the repository.
    const std::unique_ptr<char, decltype(&std::free)> absolute(::realpath(path.c_str(), nullptr), &std::free);
    if (!absolute) return errno == ENOMEM ? kOutOfMemory : kRepositoryNotAccessible;

    repository.path = absolute.get();
    repository.directory = std::move(directory);
    repository.packages = std::move(packages);
    // A killed run's leftovers go as soon as nobody writes: clean up if the lock is free now.
    if (LockRepository(repository) > 0) UnlockRepository(repository);
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
    RemoveStaleTemporaries(repository.directory.get(), repository.packages.get());
    return kSuccess;
}

void UnlockRepository(Repository& repository) { repository.lock = FileDescriptor(); }

} // namespace localrelay

using namespace localrelay;

extern "C" {

ZOVRELAY_Status ZOVRELAY_CreateContext(ZOVRELAY_Context** context, const wchar_t* repository) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr || repository == nullptr) return Settle(kInvalidArgument);
    return Guard([&]() -> ZOVRELAY_Status {
        std::optional<std::string> path = NarrowWide(repository);
        if (!path) return kInvalidArgument;
        Repository opened;
        const ZOVRELAY_Status status = OpenRepository(*path, opened);
        if (status <= 0) return status;
        // The semaphore comes last, so that a refused context never opens it.
        *context = new ZOVRELAY_Context(std::move(opened));
        return kSuccess;
    });
}

// Releases whatever the library's state: the module destroys every context it made. From inside
// an event handler of this context's running operation, the operation releases it on return.
ZOVRELAY_Status ZOVRELAY_DestroyContext(ZOVRELAY_Context* context) {
    if (context == nullptr) return IsStarted() ? kInvalidArgument : kNotStarted;
    if (context->running) context->destroyPending = true;
    else delete context;
    return IsStarted() ? kSuccess : kNotStarted;
}

// Reads all 64 bits: a value past 2^32 is a different value, not its low half.
ZOVRELAY_Status ZOVRELAY_SetOption(ZOVRELAY_Context* context, int option, int64_t value) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr) return Settle(kInvalidArgument);
    return Settle(SetNumberOption(context->options, option, value));
}

// The caller frees its string right after the call, so the option keeps its own bytes.
ZOVRELAY_Status ZOVRELAY_SetStringOption(ZOVRELAY_Context* context, int option, const wchar_t* value) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr || value == nullptr) return Settle(kInvalidArgument);
    return Guard([&]() -> ZOVRELAY_Status {
        const std::optional<std::string> text = NarrowWide(value);
        if (!text) return kInvalidArgument;
        return SetTextOption(context->options, option, *text);
    });
}

ZOVRELAY_Status ZOVRELAY_SubscribeEvent(ZOVRELAY_Context* context, ZOVRELAY_EventType type,
                                        ZOVRELAY_Callback callback, void* userData) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr) return Settle(kInvalidArgument);
    return Settle(context->events.Subscribe(type, callback, userData));
}

} // extern "C"
