// Bytes as lower-case hexadecimal digits, and back.
#ifndef LOCALRELAY_BASE_HEX_H
#define LOCALRELAY_BASE_HEX_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace localrelay {

inline std::string Hex(const void* data, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        const unsigned byte = static_cast<const unsigned char*>(data)[i];
        hex += kDigits[byte >> 4], hex += kDigits[byte & 15];
    }
    return hex;
}

// Digits of either case, two a byte; nullopt for anything else.
inline std::optional<std::string> FromHex(std::string_view text) {
    const auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    };
    if (text.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]), low = digit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += char(high * 16 + low);
    }
    return bytes;
}

}  // namespace localrelay

#endif
