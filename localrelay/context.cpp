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

// Failing to open it costs nothing but the sharing: the context works without it.
NamedSemaphore::NamedSemaphore() : handle_(sem_open("/zovrelay", O_CREAT, 0666, 1)) {}

NamedSemaphore::~NamedSemaphore() {
    if (handle_ != SEM_FAILED) sem_close(handle_);
}

ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository) {
    std::error_code ignored;
    // Whatever went wrong shows again when the directory is opened.
    std::filesystem::create_directories(path, ignored);

    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto refused = [&](const char* what) {
        return Fail(kRepositoryNotAccessible, std::string(what) + " (" + FromErrno(errno).reason + ")", path);
    };
    if (directory.get() < 0) return refused("not accessible");
    // flock, not fcntl locks: a second open of the directory conflicts within one process too.
    if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? kRepositoryBusy : refused("cannot lock");

    if (::mkdirat(directory.get(), "packages", 0777) != 0 && errno != EEXIST) return refused("no packages/ in");
    struct stat packages {};
    if (::fstatat(directory.get(), "packages", &packages, 0) != 0 || !S_ISDIR(packages.st_mode))
        return kRepositoryNotAccessible;
    // Under the lock, so no running mirror of another context can own them.
    RemoveStaleTemporaries(directory.get());

    // Absolute, so that a later change of working directory cannot move the repository.
    const std::unique_ptr<char, decltype(&std::free)> absolute(::realpath(path.c_str(), nullptr), &std::free);
    if (!absolute) return errno == ENOMEM ? kOutOfMemory : kRepositoryNotAccessible;

    repository.path = absolute.get();
    repository.directory = std::move(directory);
    return kSuccess;
}

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
