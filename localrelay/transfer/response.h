// What a package transfer reads from an HTTP response's header lines: the range it answers,
// the file's validators and how long the server asks us to wait. The lines come from the source
// and are parsed without trust. Internal to the transfer layer (and its fuzz target).
#ifndef LOCALRELAY_RESPONSE_H
#define LOCALRELAY_RESPONSE_H

#include "transfer/resume.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace localrelay {

// The longest pause between attempts a server may ask for with Retry-After, in seconds.
constexpr long kRetryAfterCap = 30;

struct Response {
    std::string contentRange;  // the value of Content-Range, blanks trimmed
    Validators answered;       // ETag and Last-Modified
    long retryAfter = -1;      // seconds, at most kRetryAfterCap; -1: not asked

    // Takes one header line as libcurl hands it over (with its line end); a status line starts
    // a new response (after a redirect, say) and forgets the previous one's headers.
    void ReadHeaderLine(const char* text, size_t length);
};

// Whether a 206 answer's Content-Range starts at byte `from`, as asked ("bytes <from>-...").
bool RangeStartsAt(const std::string& contentRange, uint64_t from);

}  // namespace localrelay

#endif
