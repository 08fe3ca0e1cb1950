// The identifier parser on arbitrary bytes: it must never read past the input, and whatever it
// accepts must come back unchanged through the writers.
#include <stddef.h>
#include <stdint.h>

#include "entities/identifiers.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ZOVRELAY_EntityItem item;
    if (ParseIdentifier(reinterpret_cast<const char*>(data), size, item) != nullptr) return 0;
    // Class and type carry no sign, so a negative one (from digits past 2^31) cannot be written back.
    if (item.klass < 0 || item.type < 0) return 0;

    char text[kIdentifierSize];
    ZOVRELAY_EntityItem back;
    size_t length = ComponentText(item, text);
    check(ParseIdentifier(text, length, back) == nullptr);
    check(back.klass == item.klass && back.type == item.type && back.language == item.language &&
          back.platform == item.platform && back.region == item.region && back.oem == item.oem);
    check(back.version.major == 0 && back.version.minor == 0 && back.version.build == 0);

    // The full form prints major and build as signed 32-bit numbers: it reads back below 2^31 only.
    if (static_cast<uint32_t>(item.version.major) >= 2147483648u || static_cast<uint32_t>(item.version.build) >= 2147483648u)
        return 0;
    length = EntityText(item, text);
    check(ParseIdentifier(text, length, back) == nullptr);
    check(back.klass == item.klass && back.type == item.type && back.oem == item.oem);
    check(back.version.minor == item.version.minor && back.version.revision == 0);
    if (item.version.major < 2147483648u) check(back.version.major == item.version.major);
    if (item.version.build < 2147483648u) check(back.version.build == item.version.build);
    return 0;
}
