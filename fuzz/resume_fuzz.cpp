// Resume records as a later run finds them in packages/ (anyone who can write the repository can
// plant one): parsing never crashes, accepts only a record written for the same download, and
// what it accepts formats back to the same bytes. The input is the record's address, a NUL, then
// the record's text.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "transfer/resume.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\0');
    localrelay::Download d;
    d.address = split == std::string::npos ? "http://host/a.zip" : input.substr(0, split);
    d.offset = 1187, d.size = 48213, d.headroom = 64, d.sha256 = std::string(64, 'a'), d.part = ".a.part";
    const std::string text = split == std::string::npos ? input : input.substr(split + 1);
    localrelay::Validators validators;
    if (!localrelay::ParseResumeRecord(text, d, validators)) return 0;
    check(!validators.empty());
    check(validators.etag.find('\n') == std::string::npos);
    check(text.rfind(localrelay::FormatResumeRecord(d, {}).substr(0, 18), 0) == 0);
    if (validators.modified.find('\n') == std::string::npos)
        check(localrelay::FormatResumeRecord(d, validators) == text);
    return 0;
}
