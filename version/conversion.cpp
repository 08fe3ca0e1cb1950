#include "version/conversion.h"

#include <lua.hpp>
#include <stdint.h>
#include <string.h>

#include "version/digits.h"
#include "version/engines.h"

namespace {

constexpr int32_t kPatternClass = 3;
constexpr int32_t kRulePackageClass = 22;
constexpr int32_t kTaviType = 0x8A5;

// A pattern with minor and build 0 carries its whole version in major, shown in digit groups that
// depend on its type. Each layout reads as a printf format: the first %d takes all the leading
// digits, every later %d exactly one digit, so zeros inside a group are always written.
struct PatternNotation {
    int32_t type;
    const char* layout;
};

const char kWholeNumber[] = "%d";

const PatternNotation kPatternNotations[] = {
    {0x4, "%d.%d%d%d.%d%d"},
    {0x4000000, "%d.%d%d%d"},
    {0x4000001, "%d.%d%d%d"},
    {0x20000020, "%d.%d%d%d.%d%d"},
    {0x20000040, "%d.%d%d%d.%d%d"},
    {0x20000400, "%d.%d%d%d.%d%d"},
    {0x40000010, "%d.%d%d"},
    {0x40800000, "%d.%d%d%d.%d%d"},
    {0x41000000, "%d.%d%d%d.%d%d"},
    {0x48000100, "%d.%d%d%d%d%d"},
    {0x48020000, "%d.%d%d%d.%d%d"},
    {0x48040024, "%d.%d%d%d.%d%d"},
    {0x48040025, "%d.%d%d%d.%d%d"},
    {0x48040066, "%d.%d%d%d.%d%d"},
    {0x48040181, "%d.%d%d%d%d%d.%d%d"},
    {0x48040193, "%d.%d%d%d.%d%d"},
};

const char* PatternLayout(int32_t type) {
    for (const PatternNotation& row : kPatternNotations) {
        if (row.type == type) return row.layout;
    }
    return kWholeNumber;
}

// Every group is printed as a C int: the low 32 bits read as signed, as a "%d" of (int)value would.
int32_t AsInt32(uint64_t value) {
    const uint32_t low = static_cast<uint32_t>(value);
    int32_t result;
    memcpy(&result, &low, sizeof result);
    return result;
}

VersionText PatternText(int32_t type, uint64_t number) {
    const char* layout = PatternLayout(type);
    int singleDigits = -1;  // every %d but the first
    for (const char* at = layout; *at != '\0'; ++at) {
        if (at[0] == '%' && at[1] == 'd') ++singleDigits;
    }
    uint64_t scale = 1;  // the place value of the next group's last digit
    while (singleDigits-- > 0) scale *= 10;

    VersionText result;
    char* end = result.text;
    bool first = true;
    for (const char* at = layout; *at != '\0'; ++at) {
        if (at[0] != '%' || at[1] != 'd') {
            *end++ = *at;
            continue;
        }
        const uint64_t group = first ? number / scale : number / scale % 10;
        end = WriteSigned(end, AsInt32(group));
        first = false;
        scale /= 10;
        ++at;
    }
    result.length = static_cast<size_t>(end - result.text);
    *end = '\0';
    return result;
}

}  // namespace

VersionText DisplayVersionText(int klass, int type, const ZOV_Version* version) {
    const unsigned long major = version->major;
    const unsigned long minor = version->minor;
    const unsigned long build = version->build;
    if (klass == kPatternClass) {
        if (minor != 0 || build != 0) return VersionToText(major, minor, build, 3, false, MINOR_VERSION_LEFT_PADDED);
        return PatternText(type, major);
    }
    if (IsScanEngine(klass, type)) return VersionToText(major, minor, build, 1, false, MINOR_VERSION_RIGHT_PADDED);
    if (klass == kRulePackageClass && type == kTaviType) {
        return VersionToText(major, minor, build, 1, false, MINOR_VERSION_LEFT_PADDED);
    }
    return VersionToText(major, minor, build, 3, false, MINOR_VERSION_LEFT_PADDED);
}

void ConvertVersionFormatKE2UI(lua_State* L, int klass, int type, const ZOV_Version* version) {
    const VersionText text = DisplayVersionText(klass, type, version);
    lua_pushlstring(L, text.text, text.length);
}
