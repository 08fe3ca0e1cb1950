// The held cache's parser (.held in the repository's root) on arbitrary bytes: a damaged or forged
// record must be refused whole or read into entries whose ranges lie inside the archive they
// describe. What it accepts it writes back in a form it reads again to the same record.
#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "repository/heldcache.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto entries = localrelay::ParseHeldCache(text);
    if (!entries) return 0;
    for (const auto& [name, entry] : *entries)
        for (const auto& [entryName, range] : entry.ranges)
            if (range.offset > entry.file.size || range.size > entry.file.size - range.offset) __builtin_trap();
    const std::string written = localrelay::FormatHeldCache(*entries);
    const auto again = localrelay::ParseHeldCache(written);
    if (!again || localrelay::FormatHeldCache(*again) != written) __builtin_trap();
    return 0;
}
