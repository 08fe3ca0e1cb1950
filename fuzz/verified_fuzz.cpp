// The verification record's parser (.verified in the repository's root) on arbitrary bytes: lines
// it cannot read are skipped (their archives are then read back), and what it keeps it writes
// back in a form it reads again to the same record.
#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "repository/verification.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const localrelay::VerificationRecord record = localrelay::ParseVerification(text);
    for (const auto& [name, verified] : record)
        if (name.empty() || name.find_first_of(" \n") != std::string::npos) __builtin_trap();
    const std::string written = localrelay::FormatVerification(record);
    if (localrelay::FormatVerification(localrelay::ParseVerification(written)) != written) __builtin_trap();
    return 0;
}
