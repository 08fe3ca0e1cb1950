#include <gtest/gtest.h>
#include <lua.hpp>
#include <stdint.h>

#include <string>

#include "entities/kinds.h"
#include "version/engines.h"
#include "version/conversion.h"

namespace {

constexpr unsigned long k2To32 = 4294967296ul;

TEST(DisplayVersion, ByClassAndType) {
    struct Case { int klass, type; unsigned long major, minor, build; const char* text; };
    const Case cases[] = {
        {3, 4, 1234567, 0, 0, "12.345.67"},         {3, 4, 905, 0, 0, "0.009.05"},
        {3, 4, 0, 0, 0, "0.000.00"},                {3, 4, 1234567, 0, 1, "1234567.0.1"},
        {3, 1073741840, 1234, 0, 0, "12.34"},       {3, 67108864, 7, 0, 0, "0.007"},
        {3, 1208222081, 123456789, 0, 0, "12.34567.89"},
        {3, 2048, 1234567, 0, 0, "1234567"},        {2, 1207960066, 9, 750, 1001, "9.750.1001"},
        {2, 1207960066, 10, 0, 0, "10.000"},        {2, 1207960068, 9, 750, 1001, "9.075.1001"},
        {22, 2213, 1, 1200, 0, "1.120"},            {22, 2212, 1, 1200, 0, "1.12"},
        {1, 5, 9, 7500, 1234, "9.75.1234"},
        // Each layout with N = 1234567 and N = 905.
        {3, 0x48000100, 1234567, 0, 0, "12.34567"}, {3, 0x48000100, 905, 0, 0, "0.00905"},
        {3, 0x4000001, 1234567, 0, 0, "1234.567"},  {3, 0x4000001, 905, 0, 0, "0.905"},
        {3, 0x40000010, 1234567, 0, 0, "12345.67"}, {3, 0x40000010, 905, 0, 0, "9.05"},
        {3, 0x48040181, 1234567, 0, 0, "0.12345.67"}, {3, 0x48040181, 905, 0, 0, "0.00009.05"},
        {3, 512, 905, 0, 0, "905"},
        // Unlisted and negative types print N whole, as a 32-bit signed int.
        {3, 5, 0, 0, 0, "0"},                       {3, -1, 2147483648ul, 0, 0, "-2147483648"},
        {3, INT32_MIN, 4294967295ul, 0, 0, "-1"},   {3, 5, k2To32 + 5, 0, 0, "5"},
        {3, 4, 100000 * k2To32 + 1234567, 0, 0, "12.345.67"},
        // Any nonzero minor or build, even one with zero low 32 bits, leaves the digit groups.
        {3, 4, 1234567, 0, k2To32, "1234567.0.0"},  {3, 4, 1234567, k2To32, 0, "1234567.0"},
        {1, 4, 1234567, 0, 0, "1234567.0"},
        // The tavi notation needs both class and type.
        {2, 2213, 1, 1200, 0, "1.12"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "klass " << c.klass << ", type " << c.type << ", major " << c.major);
        const ZOV_Version version = {c.major, c.minor, c.build, 99};
        const VersionText text = DisplayVersionText(c.klass, c.type, &version);
        EXPECT_EQ(std::string(text.text, text.length), c.text);
    }
}

TEST(DisplayVersion, ConvertPushesOneString) {
    lua_State* L = luaL_newstate();
    const ZOV_Version version = {905, 0, 0, 0};
    ConvertVersionFormatKE2UI(L, 3, 4, &version);
    ASSERT_EQ(lua_gettop(L), 1);
    ASSERT_EQ(lua_type(L, 1), LUA_TSTRING);
    EXPECT_STREQ(lua_tostring(L, 1), "0.009.05");
    lua_close(L);
}

TEST(Kinds, ScanEngines) {
    const int engines[] = {1207960066, 1207960067, 1207960101, 1207960102, 1207960103, 1207960104};
    for (int type : engines) EXPECT_TRUE(IsScanEngine(2, type)) << type;
    // Neighbours, unset mask bits, offsets past the mask and wrapped negatives.
    const int others[] = {1207960065, 1207960068, 1207960100, 1207960105, 1207960066 + 64, 0, -1, INT32_MIN};
    for (int type : others) EXPECT_FALSE(IsScanEngine(2, type)) << type;
    EXPECT_FALSE(IsScanEngine(3, 1207960066));
}

TEST(Kinds, FriendlyNames) {
    struct Case { int klass, type, language; const char* name; };
    const Case cases[] = {
        {3, 4, 1, "kerno_english"},        {3, 4, 2, "kerno_china"},          {3, 4, 4, "kerno_japan"},
        {3, 4, 7, "kerno_unknown"},        {3, 4, -1, "kerno_unknown"},       {3, 4, 3, "kerno_unknown"},
        {3, 0x48008000, 1, "lumo_english"}, {3, 0x48008000, 2, "lumo_china"}, {3, 0x48008000, 4, "lumo_japan"},
        {3, 0x48008000, 0, "lumo_unknown"}, {3, 2048, 1, "mendal"},           {22, 2213, 1, "tavi"},
        {3, 5, 1, nullptr},                {2, 2213, 1, nullptr},             {22, 4, 1, nullptr},
        {2, 4, 1, nullptr},                {3, 0x4000000, 1, nullptr},
    };
    for (const Case& c : cases) {
        const ZOVRELAY_EntityItem item = {c.klass, c.type, c.language, -1, -1, -1, {0, 0, 0, 0}};
        const char* name = EntityFriendlyName(item);
        EXPECT_STREQ(name, c.name) << "klass " << c.klass << ", type " << c.type << ", language " << c.language;
    }
}

}  // namespace
