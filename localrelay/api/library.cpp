// Start-up, shut-down, version and status messages: the calls that need no context.
#include "api/library.h"
#include "base/failure.h"
#include "base/status.h"
#include "base/wide.h"

#include <atomic>
#include <cwchar>

namespace localrelay {
namespace {

// A flag, not a count: a script's shutdown() must stop the library however often it was started.
// Start-up acquires nothing that contexts share, so a shutdown with contexts open frees nothing
// under them.
std::atomic<bool> started{false};

} // namespace

bool IsStarted() noexcept { return started.load(); }

} // namespace localrelay

using namespace localrelay;

extern "C" {

ZOVRELAY_Status ZOVRELAY_Startup(void* /*reserved*/) {
    started = true;
    return kSuccess;
}

ZOVRELAY_Status ZOVRELAY_Shutdown(void) {
    return Settle(started.exchange(false) ? kSuccess : kNotStarted);
}

ZOVRELAY_Status ZOVRELAY_GetVersion(ZOV_Version* version) {
    if (version == nullptr) return Settle(kInvalidArgument);
    *version = ZOV_Version{1, 0, 0, 0};
    return kSuccess;
}

// The calling thread's last failure, when `status` is it, says what failed and why (failure.h);
// any other status gets the table's text.
ZOVRELAY_Status ZOVRELAY_GetStatusMessage(wchar_t* buffer, ZOVRELAY_Status status) {
    if (buffer == nullptr) return kInvalidArgument;
    try {  // not Guard: asking must not change the last failure
        std::string text;
        if (LastFailureText(status, text)) {
            const std::wstring wide = WidenBytes(text.substr(0, kStatusMessageCapacity - 1));
            std::wcscpy(buffer, wide.c_str());
            return kSuccess;
        }
    } catch (...) {
        // the table's text below
    }
    for (const StatusEntry& entry : kStatusTable) {
        if (entry.status == status) {
            std::wcscpy(buffer, entry.message); // fits: checked when the table is compiled
            return kSuccess;
        }
    }
    std::swprintf(buffer, kStatusMessageCapacity, L"unknown status %d", static_cast<int>(status));
    return kSuccess;
}

} // extern "C"
