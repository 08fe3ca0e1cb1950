// A package response's header lines as a hostile server sends them: reading them never crashes,
// the pause asked for stays within its cap, values come without the blanks and line ends around
// them, and a Content-Range is taken to start where it says. The input is a byte offset (8 bytes),
// then header lines.
#include <stddef.h>
#include <stdint.h>

#include <cstring>
#include <string>

#include "transfer/response.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

bool Trimmed(const std::string& value) {
    return value.empty() || (value.front() != ' ' && value.back() != ' ' && value.back() != '\r' && value.back() != '\n');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint64_t from = 0;
    if (size >= sizeof from) std::memcpy(&from, data, sizeof from), data += sizeof from, size -= sizeof from;
    const std::string text(reinterpret_cast<const char*>(data), size);
    localrelay::Response response;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        response.ReadHeaderLine(text.data() + at, end - at);
        check(response.retryAfter >= -1 && response.retryAfter <= localrelay::kRetryAfterCap);
        check(Trimmed(response.contentRange) && Trimmed(response.answered.etag) && Trimmed(response.answered.modified));
        at = end;
    }
    if (localrelay::RangeStartsAt(response.contentRange, from)) {
        const std::string start = "bytes " + std::to_string(from) + "-";
        check(response.contentRange.compare(0, start.size(), start) == 0);
    }
    check(localrelay::RangeStartsAt("bytes " + std::to_string(from) + "-" + text, from));
    return 0;
}
