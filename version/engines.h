// Which components are scan engines: their versions read differently, and the entity tables and
// the version notation both need to know. Plain numbers only, so it sits below both.
#ifndef UPDATE_VERSION_ENGINES_H
#define UPDATE_VERSION_ENGINES_H

#include <stdint.h>

// The scan engines are class 2, type 0x48000202 plus one of the offsets whose bit is set here
// (0, 1, 35 to 38).
inline bool IsScanEngine(int klass, int type) {
    constexpr uint32_t kFirstScanEngine = 0x48000202u;
    constexpr uint32_t kLastScanEngineOffset = 38;
    constexpr uint64_t kScanEngineOffsets = 0x7800000003ull;
    // Unsigned, so types below the first engine wrap to large offsets and fail the range check.
    const uint32_t offset = static_cast<uint32_t>(type) - kFirstScanEngine;
    return klass == 2 && offset <= kLastScanEngineOffset && ((kScanEngineOffsets >> offset) & 1u) != 0;
}

#endif
