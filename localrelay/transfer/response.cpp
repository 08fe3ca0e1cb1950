// Header lines of a package's HTTP response.
#include "transfer/response.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace localrelay {
namespace {

bool StartsWithNoCase(const char* text, size_t length, const char* prefix) {
    const size_t n = std::strlen(prefix);
    return length >= n && ::strncasecmp(text, prefix, n) == 0;
}

std::string HeaderValue(const char* text, size_t length, size_t nameLength) {
    std::string value(text + nameLength, length - nameLength);
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.pop_back();
    size_t start = 0;
    while (start < value.size() && value[start] == ' ') ++start;
    return value.substr(start);
}

// Seconds only, at most the cap; a date (or anything else) is taken as "later", the cap.
long RetryAfterSeconds(const std::string& value) {
    size_t digits = 0;
    while (digits < value.size() && std::isdigit(static_cast<unsigned char>(value[digits]))) ++digits;
    if (digits == 0) return kRetryAfterCap;
    long seconds = 0;
    for (size_t i = 0; i < digits && seconds < kRetryAfterCap; ++i) seconds = seconds * 10 + (value[i] - '0');
    return std::min(seconds, kRetryAfterCap);
}

}  // namespace

void Response::ReadHeaderLine(const char* text, size_t length) {
    if (StartsWithNoCase(text, length, "HTTP/")) {
        *this = Response{};
    } else if (StartsWithNoCase(text, length, "content-range:")) {
        contentRange = HeaderValue(text, length, 14);
    } else if (StartsWithNoCase(text, length, "etag:")) {
        answered.etag = HeaderValue(text, length, 5);
    } else if (StartsWithNoCase(text, length, "last-modified:")) {
        answered.modified = HeaderValue(text, length, 14);
    } else if (StartsWithNoCase(text, length, "retry-after:")) {
        retryAfter = RetryAfterSeconds(HeaderValue(text, length, 12));
    }
}

bool RangeStartsAt(const std::string& contentRange, uint64_t from) {
    const std::string expected = "bytes " + std::to_string(from) + "-";
    return contentRange.compare(0, expected.size(), expected) == 0;
}

}  // namespace localrelay
