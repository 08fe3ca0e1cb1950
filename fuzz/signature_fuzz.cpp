// The signature file's parser (source.ini.sig, fetched from any source or cache on the way) and
// the trusted-keys parser on arbitrary bytes: what a signature file keeps it writes back in a
// form that reads again to the same statements, and checking a catalog against it never crashes.
#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "catalog/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace localrelay;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const std::optional<SignatureFile> file = ParseSignatureFile(text)) {
        const std::string written = FormatSignatureFile(*file);
        const std::optional<SignatureFile> again = ParseSignatureFile(written);
        if (!again || FormatSignatureFile(*again) != written) __builtin_trap();
    }
    const std::vector<std::string> keys{std::string(32, '\1')};
    if (CheckSignature(keys, "source.ini", "catalog\n", std::string(text), 0).refusal.empty()) __builtin_trap();
    TrustedKeys trusted;
    std::string error;
    AddTrustedKeys(trusted, text, "fuzz", [](const std::string&) -> std::optional<std::string> { return std::nullopt; },
                   error);
    return 0;
}
