// Statuses of the local relay and their messages: the one table that every call and
// ZOVRELAY_GetStatusMessage read. Errors travel inside the library as these values.
#ifndef LOCALRELAY_STATUS_H
#define LOCALRELAY_STATUS_H

#include "zovrelay.h"

#include <cstddef>
#include <new>
#include <stdexcept>
#include <system_error>

namespace localrelay {

enum Status : ZOVRELAY_Status {
    kSuccess = 1,
    kInvalidArgument = -1,
    kNotStarted = -2,
    kRepositoryNotAccessible = -3,
    kOutOfMemory = -4,
    kNoSourceReachable = -5,
    kNotFound = -6,
    kIntegrityFailed = -7,
    kCancelled = -8,
    kRepositoryBusy = -9,
    kIoError = -10,
    kInvalidCatalog = -11,
    // Where the administrator's remedy differs, the failure has a status of its own.
    kHttpError = -12,           // the source answered an HTTP error status
    kHostNotResolved = -13,     // the source's (or proxy's) host name did not resolve
    kConnectionFailed = -14,    // refused, reset or timed out
    kCertificateRefused = -15,  // the TLS certificate check failed
    kProxyRefused = -16,        // the proxy refused the credentials
    kNoSpace = -17,             // no space left on the repository's file system
    kPermissionDenied = -18,    // the file system refused access
    kUnsupportedAddress = -19,  // a source address of a kind the relay cannot read (ftp://...)
};

struct StatusEntry {
    Status status;
    const wchar_t* message;
};

inline constexpr StatusEntry kStatusTable[] = {
    {kSuccess, L"success"},
    {kInvalidArgument, L"invalid argument"},
    {kNotStarted, L"relay library not started"},
    {kRepositoryNotAccessible, L"repository not accessible"},
    {kOutOfMemory, L"out of memory"},
    {kNoSourceReachable, L"no source reachable"},
    {kNotFound, L"not found"},
    {kIntegrityFailed, L"integrity check failed"},
    {kCancelled, L"cancelled"},
    {kRepositoryBusy, L"repository is busy"},
    {kIoError, L"i/o error"},
    {kInvalidCatalog, L"invalid catalog"},
    {kHttpError, L"source answered an HTTP error"},
    {kHostNotResolved, L"host name not resolved"},
    {kConnectionFailed, L"connection failed"},
    {kCertificateRefused, L"certificate check failed"},
    {kProxyRefused, L"proxy refused the credentials"},
    {kNoSpace, L"no space left on device"},
    {kPermissionDenied, L"permission denied"},
    {kUnsupportedAddress, L"unsupported source address"},
};

// The caller's buffer is 64 wide characters and its size never reaches us.
inline constexpr std::size_t kStatusMessageCapacity = 64;

constexpr bool MessagesFit() {
    for (const StatusEntry& entry : kStatusTable) {
        std::size_t length = 0;
        while (entry.message[length] != L'\0') ++length;
        if (length >= kStatusMessageCapacity) return false;
    }
    return true;
}
static_assert(MessagesFit(), "a status message must fit 63 wide characters");

// Every relay call returns through these: a failing status becomes the calling thread's last
// failure (see failure.h). Settle, for a call that fails before its work began, with no detail;
// EnterCall and LeaveCall around the work, with the detail it recorded. Both return `status`.
ZOVRELAY_Status Settle(ZOVRELAY_Status status) noexcept;
void EnterCall() noexcept;
ZOVRELAY_Status LeaveCall(ZOVRELAY_Status status) noexcept;

// Runs the body of an extern "C" call: no exception may cross into C callers.
template <class Body>
ZOVRELAY_Status Guard(Body&& body) noexcept {
    EnterCall();
    try {
        return LeaveCall(body());
    } catch (const std::bad_alloc&) {
        return LeaveCall(kOutOfMemory);
    } catch (const std::length_error&) {
        return LeaveCall(kOutOfMemory);
    } catch (const std::system_error&) {
        return LeaveCall(kIoError);
    } catch (...) {
        return LeaveCall(kOutOfMemory);
    }
}

} // namespace localrelay

#endif
