// The merged archive's manifest parser on arbitrary bytes: the manifest comes from an archive in
// the repository, which anyone who can write there may have planted. It never crashes, accepts
// only package paths that stay inside a source, and writes back what it accepts in a form it
// reads again to the same manifest.
#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "archive/archive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::optional<localrelay::Manifest> manifest = localrelay::ParseManifest(text);
    if (!manifest) return 0;
    for (const localrelay::HeldVersion& held : manifest->versions)
        if (!localrelay::IsPackagePath(held.path)) __builtin_trap();
    const std::string written = localrelay::FormatManifest(*manifest);
    const std::optional<localrelay::Manifest> again = localrelay::ParseManifest(written);
    if (!again || localrelay::FormatManifest(*again) != written) __builtin_trap();
    return 0;
}
