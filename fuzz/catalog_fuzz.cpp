// The local relay's catalog parser on arbitrary bytes: it never crashes, never accepts a package
// path that could leave the source, and what it accepts it writes back in a form it reads again
// to the same catalog.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "catalog/catalog.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::optional<localrelay::Catalog> catalog = localrelay::ParseCatalog(text);
    if (!catalog) return 0;
    for (const localrelay::Component& component : catalog->components) {
        const std::string& path = component.path;
        check(localrelay::IsPackagePath(path));
        check(!path.empty() && path[0] != '/' && path != ".." && path.rfind("../", 0) != 0 &&
              path.find("/../") == std::string::npos && (path.size() < 3 || path.compare(path.size() - 3, 3, "/..") != 0));
    }
    std::string written = localrelay::FormatCatalog(*catalog);
    std::optional<localrelay::Catalog> again = localrelay::ParseCatalog(written);
    check(again.has_value());
    check(localrelay::FormatCatalog(*again) == written);
    return 0;
}
