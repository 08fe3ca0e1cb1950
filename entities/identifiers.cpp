// Identifier strings: one left-to-right parser and three writers whose output it reads back.
#include "entities/identifiers.h"

#include <lua.hpp>

#include "version/digits.h"
#include "version/notation.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a run of digits, possibly empty, wrapping modulo 2^64.
uint64_t readDigits(const char*& p, const char* end) {
    uint64_t value = 0;
    for (; p < end && isDigit(*p); ++p) value = value * 10 + static_cast<uint64_t>(*p - '0');
    return value;
}

int32_t low32(uint64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); }

// The minor is a four-place fraction: ".5" is 5000, ".0025" is 25. A fifth digit has no weight;
// six digits are refused.
const char* readMinor(const char*& p, const char* end, unsigned long& minor) {
    size_t run = 0;
    while (p + run < end && isDigit(p[run])) ++run;
    if (run >= 6) return "minor version too large";
    static const unsigned long weights[4] = {1000, 100, 10, 1};
    minor = 0;
    for (size_t i = 0; i < run && i < 4; ++i) minor += static_cast<unsigned long>(p[i] - '0') * weights[i];
    p += run;
    return nullptr;
}

int32_t* fieldFor(char letter, ZOVRELAY_EntityItem& item) {
    switch (letter) {
        case 'l': return &item.language;
        case 'p': return &item.platform;
        case 'r': return &item.region;
        case 'o': return &item.oem;
        default: return nullptr;
    }
}

char* writeFields(char* out, const ZOVRELAY_EntityItem& item) {
    *out++ = 'l';
    out = WriteSigned(out, item.language);
    *out++ = 'p';
    out = WriteSigned(out, item.platform);
    *out++ = 'r';
    out = WriteSigned(out, item.region);
    *out++ = 'o';
    return WriteSigned(out, item.oem);
}

char* writeClassAndType(char* out, const ZOVRELAY_EntityItem& item) {
    *out++ = 'c';
    out = WriteSigned(out, item.klass);
    *out++ = 't';
    return WriteSigned(out, item.type);
}

}  // namespace

// A Lua string may hold a NUL byte; it is an ordinary character here and so an invalid field,
// never a silent end of the identifier.
const char* ParseIdentifier(const char* text, size_t length, ZOVRELAY_EntityItem& item) {
    item = ZOVRELAY_EntityItem{0, 0, -1, -1, -1, -1, {0, 0, 0, 0}};
    const char* p = text;
    const char* end = text + length;

    if (p == end || *p != 'c') return "invalid product class";
    ++p;
    item.klass = low32(readDigits(p, end));
    if (p == end || *p != 't') return "invalid product type";
    ++p;
    item.type = low32(readDigits(p, end));

    if (p < end && *p == 'v') {
        ++p;
        item.version.major = readDigits(p, end);
        if (p < end && *p == '.') {
            ++p;
            if (const char* message = readMinor(p, end, item.version.minor)) return message;
            if (p < end && *p == '.') {
                ++p;
                item.version.build = readDigits(p, end);
                if (p < end && *p == '.') {
                    ++p;
                    item.version.revision = readDigits(p, end);
                }
            }
        }
    }

    // At most four fields; the end is checked before each field, never after the fourth.
    for (int remaining = 5;;) {
        if (p == end) return nullptr;
        int32_t* field = fieldFor(*p, item);
        if (field == nullptr) return "invalid field";
        ++p;
        bool negative = p < end && *p == '-';
        if (negative) ++p;
        uint32_t value = static_cast<uint32_t>(readDigits(p, end));
        *field = static_cast<int32_t>(negative ? 0u - value : value);
        if (--remaining == 0) return "too many fields";
    }
}

const char* StringToComponent(lua_State* L, int index, ZOVRELAY_EntityItem& item) {
    item = ZOVRELAY_EntityItem{0, 0, -1, -1, -1, -1, {0, 0, 0, 0}};
    size_t length = 0;
    const char* text = lua_tolstring(L, index, &length);
    if (text == nullptr) return "expected product id string";
    return ParseIdentifier(text, length, item);
}

const char* StringToProduct(lua_State* L, int index, ZOVRELAY_Product& product) {
    product.components = nullptr;
    product.componentCount = 0;
    return StringToComponent(L, index, product.entity);
}

size_t ComponentText(const ZOVRELAY_EntityItem& item, char* out) {
    char* end = writeFields(writeClassAndType(out, item), item);
    return static_cast<size_t>(end - out);
}

size_t EntityText(const ZOVRELAY_EntityItem& item, char* out) {
    char* p = writeClassAndType(out, item);
    *p++ = 'v';
    p = WriteSigned(p, low32(item.version.major));
    *p++ = '.';
    VersionText minor = FormatMinorVersion(item.version.minor, 0);
    for (size_t i = 0; i < minor.length; ++i) *p++ = minor.text[i];
    *p++ = '.';
    p = WriteSigned(p, low32(item.version.build));
    p = writeFields(p, item);
    return static_cast<size_t>(p - out);
}

void ComponentToString(lua_State* L, const ZOVRELAY_EntityItem& item) {
    char text[kIdentifierSize];
    lua_pushlstring(L, text, ComponentText(item, text));
}

void EntityToString(lua_State* L, const ZOVRELAY_EntityItem& item) {
    char text[kIdentifierSize];
    lua_pushlstring(L, text, EntityText(item, text));
}

// Scripts may rely on the host's string.format seeing the template and the version, so the call
// goes through it rather than splicing the text here.
void ProductToString(lua_State* L, const ZOVRELAY_EntityItem& item) {
    lua_getglobal(L, "string");
    lua_getfield(L, -1, "format");
    lua_remove(L, -2);
    char text[kIdentifierSize];
    char* p = writeClassAndType(text, item);
    *p++ = 'v';
    *p++ = '%';
    *p++ = 's';
    p = writeFields(p, item);
    lua_pushlstring(L, text, static_cast<size_t>(p - text));
    FormatVersion(L, item.version.major, item.version.minor, item.version.build, 3, true, MINOR_VERSION_LEFT_PADDED);
    lua_call(L, 2, 1);
}
