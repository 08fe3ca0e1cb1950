// Local source addresses (paths and file:// URLs, from the command line or a configuration):
// decoding never crashes, a decoded file URL is an absolute path without NUL bytes, and escaping
// it again decodes to the same path.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "transfer/transfer.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

std::string Escape(const std::string& path) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char c : path) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte == '%' || byte < 0x21 || byte > 0x7e) url += '%', url += kHex[byte >> 4], url += kHex[byte & 15];
        else url += c;
    }
    return url;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string address(reinterpret_cast<const char*>(data), size);
    std::string path, error;
    const bool local = localrelay::LocalPath(address, path, &error);
    check(local == error.empty());
    if (!local) return 0;
    check(!path.empty());
    const bool url = address.size() >= 7 && (address[0] | 0x20) == 'f' && address.find("://") == 4;
    if (!url) return 0;
    check(path[0] == '/' && path.find('\0') == std::string::npos);
    std::string again;
    check(localrelay::LocalPath(Escape(path), again, nullptr) && again == path);
    return 0;
}
