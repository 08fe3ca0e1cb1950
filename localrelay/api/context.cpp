// Opening and closing relay contexts, and the settings made on them.
#include "api/context.h"
#include "base/failure.h"
#include "api/library.h"
#include "api/runmode.h"
#include "repository/repository.h"
#include "run/quiet.h"
#include "base/status.h"
#include "base/wide.h"

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


ZOVRELAY_Status LockWriting(Repository& repository) {
    const ZOVRELAY_Status status = LockRepository(repository);
    const int root = repository.directory.get(), packages = repository.packages.get();
    if (status > 0 && !PackagesAsSealed(root, packages, NowNanoseconds())) RemoveStaleTemporaries(-1, packages);
    return status;
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
        const ZOVRELAY_Status status = OpenRepository(*path, opened, !PlanOnly());
        if (status <= 0) return status;
        // A killed run's leftovers go as soon as nobody writes: clean up if the lock is free now.
        if (!PlanOnly() && LockWriting(opened) > 0) UnlockRepository(opened);
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
