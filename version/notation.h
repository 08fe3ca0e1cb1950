// Display notation of versions: the minor part and the three-part version text.
#ifndef UPDATE_VERSION_NOTATION_H
#define UPDATE_VERSION_NOTATION_H

#include <stddef.h>

struct lua_State;

// Any other value acts as MINOR_VERSION_LEFT_PADDED; the fixed underlying type makes every int a
// valid value of the enumeration.
enum MINOR_VERSION_TYPE : int { MINOR_VERSION_LEFT_PADDED = 0, MINOR_VERSION_RIGHT_PADDED = 1 };

// A version text held by value: ASCII digits and ".", NUL-terminated, length without the NUL.
// Plain data, so it may live in frames that a Lua error unwinds.
struct VersionText {
    char text[48];
    size_t length;
};

// Minor digits filled with zeros on the left (FormatMinorVersion) or the right (FormatMinorVersion2)
// up to four digits, then up to trimCount trailing zeros dropped; the trim never empties the text.
VersionText FormatMinorVersion(unsigned long minor, int trimCount);
VersionText FormatMinorVersion2(unsigned long minor, int trimCount);

// major "." minor-part ["." build]: the text that FormatVersion pushes.
VersionText VersionToText(unsigned long major, unsigned long minor, unsigned long build, int trimCount,
                          bool forceBuild, MINOR_VERSION_TYPE minorType);

/* [-0, +1]: pushes the version text */
void FormatVersion(lua_State* L, unsigned long major, unsigned long minor, unsigned long build, int trimCount,
                   bool forceBuild, MINOR_VERSION_TYPE minorType);

#endif
