// Decimal digits written into caller-owned buffers: the version and identifier texts are built on
// the stack, without heap or destructors, because Lua errors may unwind the frames that build them.
#ifndef UPDATE_VERSION_DIGITS_H
#define UPDATE_VERSION_DIGITS_H

#include <stdint.h>

// Writes the decimal digits of value at out (no terminator); returns the end of what was written.
// At most 20 bytes.
inline char* WriteUnsigned(char* out, uint64_t value) {
    char reversed[20];
    int n = 0;
    do {
        reversed[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0) *out++ = reversed[--n];
    return out;
}

// The same for a signed 32-bit value, with a leading "-" when negative. At most 11 bytes.
inline char* WriteSigned(char* out, int32_t value) {
    uint64_t magnitude = static_cast<uint64_t>(value);
    if (value < 0) {
        *out++ = '-';
        magnitude = static_cast<uint64_t>(-static_cast<int64_t>(value));
    }
    return WriteUnsigned(out, magnitude);
}

#endif
