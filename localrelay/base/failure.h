// What went wrong, in one place: libcurl results and errno values classified into the statuses an
// administrator can act on, each with a short reason, and the calling thread's last failure, whose
// detail ZOVRELAY_GetStatusMessage hands back for that status.
//
// How the detail reaches the message: code that fails with a status worth explaining calls Fail()
// (status, reason, object) on the calling thread. When a relay call returns (LeaveCall() in Guard,
// Settle() for an early return), a failing status becomes the thread's last failure, with the
// detail recorded during that call if it was for the same status, and with no detail otherwise.
// Each running call keeps its own record, so an operation run from an event handler leaves the
// detail of the operation around it alone. A
// successful call leaves the last failure alone: the module releases its context and data (two
// more calls) before it asks for the message. ZOVRELAY_GetStatusMessage(status) then answers the
// detailed text when `status` is the thread's last failure and the table's text otherwise, so
// another thread, or a status asked about out of turn, still gets a correct (plainer) text.
#ifndef LOCALRELAY_FAILURE_H
#define LOCALRELAY_FAILURE_H

#include "base/status.h"

#include <curl/curl.h>

#include <string>

namespace localrelay {

struct Failure {
    ZOVRELAY_Status status = kSuccess;
    std::string reason;  // short and on one line: "HTTP 404", "no space left", "connection refused"
};

// A finished libcurl transfer that failed. `response` is the final HTTP status (0: none),
// `connect` the proxy's answer to CONNECT (0: none), `proxyError` libcurl's CURLINFO_PROXY_ERROR,
// `proxied` whether a proxy with a user was asked, `text` libcurl's error buffer (may be empty).
Failure FromCurl(CURLcode result, long response, long connect, long proxyError, bool proxied, const char* text);

// A failed system call on the repository's files.
Failure FromErrno(int error);

// "<reason>: <object>" ("HTTP 404 for <object>") within `width` characters: a long reason gives
// up its parenthesised part, then the text is cut at its end ("..."), never in the middle of an
// address.
std::string Describe(const std::string& reason, const std::string& object, size_t width = kStatusMessageCapacity - 1);

// `text` within `width` bytes, cut at its end (on a character boundary) and ended by "...".
std::string ShortenEnd(const std::string& text, size_t width);

// Records the detail of a failure the running call is about to return (the latest record wins,
// but for the repository's own files, where the first names the file whose write failed)
// and answers `status`, so that `return Fail(kNotFound, "not found", "product " + name);` reads.
ZOVRELAY_Status Fail(ZOVRELAY_Status status, const std::string& reason, const std::string& object) noexcept;

// A failure another attempt may cure: the connection refused, reset, timed out or cut short, or
// an HTTP answer of 408, 429, 500, 502, 503 or 504. `code` is the HTTP status (0 for none).
bool IsTransient(ZOVRELAY_Status status, long code);

// The status table's text for `status` ("no space left on device"), as bytes.
std::string StatusText(ZOVRELAY_Status status);

// The message the running call will leave for `status` once it returns it, whole: the detail it
// recorded for that status, else the table's text.
std::string MessageFor(ZOVRELAY_Status status);

// The detailed message for `status` if it is the calling thread's last failure: within the
// interface's 63 characters, or `whole`. False otherwise.
bool LastFailureText(ZOVRELAY_Status status, std::string& text, bool whole = false);

}  // namespace localrelay

#endif
