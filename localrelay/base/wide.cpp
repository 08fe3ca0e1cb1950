#include "base/wide.h"

#include <cstdint>

namespace localrelay {

std::optional<std::string> NarrowWide(const wchar_t* text) {
    std::string bytes;
    for (; *text != L'\0'; ++text) {
        const auto value = static_cast<std::uint32_t>(*text);
        if (value < 0x80) {
            bytes += static_cast<char>(value);
        } else if (value >= 0xFFFFFF80u) {
            bytes += static_cast<char>(value & 0xFF);
        } else if (value < 0x800) {
            bytes += static_cast<char>(0xC0 | (value >> 6));
            bytes += static_cast<char>(0x80 | (value & 0x3F));
        } else if (value < 0x10000) {
            if (value >= 0xD800 && value <= 0xDFFF) return std::nullopt;
            bytes += static_cast<char>(0xE0 | (value >> 12));
            bytes += static_cast<char>(0x80 | ((value >> 6) & 0x3F));
            bytes += static_cast<char>(0x80 | (value & 0x3F));
        } else if (value <= 0x10FFFF) {
            bytes += static_cast<char>(0xF0 | (value >> 18));
            bytes += static_cast<char>(0x80 | ((value >> 12) & 0x3F));
            bytes += static_cast<char>(0x80 | ((value >> 6) & 0x3F));
            bytes += static_cast<char>(0x80 | (value & 0x3F));
        } else {
            return std::nullopt;
        }
    }
    return bytes;
}

std::wstring WidenBytes(const std::string& bytes) {
    std::wstring wide;
    wide.reserve(bytes.size());
    for (char c : bytes) wide += static_cast<wchar_t>(static_cast<signed char>(c));
    return wide;
}

} // namespace localrelay
