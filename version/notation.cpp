#include "version/notation.h"

#include <lua.hpp>
#include <stdint.h>
#include <string.h>

#include "version/digits.h"

namespace {

void Finish(VersionText& result, char* end) {
    result.length = static_cast<size_t>(end - result.text);
    *end = '\0';
}

// Version numbers travel as 64 bits but are shown as their low 32.
char* WriteLow32(char* out, unsigned long value) { return WriteUnsigned(out, static_cast<uint32_t>(value)); }

char* WriteZeros(char* out, int count) {
    while (count-- > 0) *out++ = '0';
    return out;
}

// Zeros needed to reach four digits. Decided on the whole minor, so a minor of 2^32 or more is
// never filled even when its printed low 32 bits are short.
int FillCount(unsigned long minor) { return (minor <= 999) + (minor <= 99) + (minor <= 9); }

// Keeps at least one character: a trimmed minor must never leave "major." behind.
void TrimZeros(VersionText& result, int trimCount) {
    while (trimCount >= 1 && result.length > 1 && result.text[result.length - 1] == '0') {
        result.text[--result.length] = '\0';
        --trimCount;
    }
}

VersionText BuildVersionText(unsigned long major, unsigned long minor, unsigned long build, int trimCount,
                             bool forceBuild, MINOR_VERSION_TYPE minorType) {
    const VersionText minorText = minorType == MINOR_VERSION_RIGHT_PADDED ? FormatMinorVersion2(minor, trimCount)
                                                           : FormatMinorVersion(minor, trimCount);
    VersionText result;
    char* end = WriteLow32(result.text, major);
    *end++ = '.';
    memcpy(end, minorText.text, minorText.length);
    end += minorText.length;
    if (build != 0 || forceBuild) {
        *end++ = '.';
        end = WriteLow32(end, build);
    }
    Finish(result, end);
    return result;
}

}  // namespace

VersionText FormatMinorVersion(unsigned long minor, int trimCount) {
    VersionText result;
    char* end = result.text;
    if (minor == 0) {
        // Zero is one digit, neither filled nor trimmed.
        *end++ = '0';
        Finish(result, end);
        return result;
    }
    end = WriteZeros(end, FillCount(minor));
    end = WriteLow32(end, minor);
    Finish(result, end);
    TrimZeros(result, trimCount);
    return result;
}

VersionText FormatMinorVersion2(unsigned long minor, int trimCount) {
    VersionText result;
    char* end = WriteLow32(result.text, minor);
    end = WriteZeros(end, FillCount(minor));
    Finish(result, end);
    TrimZeros(result, trimCount);
    return result;
}

VersionText VersionToText(unsigned long major, unsigned long minor, unsigned long build, int trimCount,
                          bool forceBuild, MINOR_VERSION_TYPE minorType) {
    return BuildVersionText(major, minor, build, trimCount, forceBuild, minorType);
}

void FormatVersion(lua_State* L, unsigned long major, unsigned long minor, unsigned long build, int trimCount,
                   bool forceBuild, MINOR_VERSION_TYPE minorType) {
    const VersionText text = BuildVersionText(major, minor, build, trimCount, forceBuild, minorType);
    lua_pushlstring(L, text.text, text.length);
}
