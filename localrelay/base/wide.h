// Wide strings from the module back to the bytes they stand for (paths, URLs, option values).
#ifndef LOCALRELAY_WIDE_H
#define LOCALRELAY_WIDE_H

#include <optional>
#include <string>

namespace localrelay {

// The module widens Lua bytes by sign extension, so 0xFFFFFF80-0xFFFFFFFF are the bytes
// 0x80-0xFF and come back unchanged; other values of 0x80 and above are code points, written as
// UTF-8. Surrogates and values past U+10FFFF name no character: nullopt. text must not be null.
std::optional<std::string> NarrowWide(const wchar_t* text);

// The inverse for texts we hand back (event information): each byte sign-extended, as the module
// widens its own strings, so that a path narrowed and widened again is the caller's string.
std::wstring WidenBytes(const std::string& bytes);

} // namespace localrelay

#endif
