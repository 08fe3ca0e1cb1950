#include <gtest/gtest.h>
#include <lua.hpp>
#include <string.h>

#include <string>

#include "version/notation.h"

namespace {

std::string Text(const VersionText& text) {
    EXPECT_EQ(text.length, strlen(text.text));
    return std::string(text.text, text.length);
}

constexpr unsigned long k2To32 = 4294967296ul;

TEST(MinorVersion, LeftAndRightFilledThenTrimmed) {
    struct Case { unsigned long minor; int trimCount; const char* left; const char* right; };
    const Case cases[] = {
        {0, 0, "0", "0000"},       {0, 1, "0", "000"},         {0, 3, "0", "0"},
        {5, 0, "0005", "5000"},    {5, 3, "0005", "5"},        {10, 0, "0010", "1000"},
        {10, 1, "001", "100"},     {10, 3, "001", "1"},        {40, 2, "004", "40"},
        {99, 1, "0099", "990"},    {100, 1, "010", "100"},     {100, 2, "01", "10"},
        {120, 1, "012", "120"},    {999, 3, "0999", "999"},    {1000, 0, "1000", "1000"},
        {1000, 1, "100", "100"},   {1000, 3, "1", "1"},        {1000, 4, "1", "1"},
        {1200, 3, "12", "12"},     {1234, 3, "1234", "1234"},  {9000, -1, "9000", "9000"},
        {10000, 3, "10", "10"},    {12340, 1, "1234", "1234"}, {120000, 3, "120", "120"},
        {4294967295ul, 0, "4294967295", "4294967295"},
        // Inclusive thresholds, and no trim for counts of zero or below.
        {9, 0, "0009", "9000"},    {99, 0, "0099", "9900"},    {999, 0, "0999", "9990"},
        {120, 0, "0120", "1200"},  {120, -5, "0120", "1200"},  {123456, 0, "123456", "123456"},
        // Thresholds see all 64 bits, the digits only the low 32.
        {k2To32, 0, "0", "0"},     {k2To32 + 5, 0, "5", "5"},  {k2To32 + 50, 1, "5", "5"},
        // The trim never empties the text.
        {0, 4, "0", "0"},          {0, 1000, "0", "0"},        {k2To32, 3, "0", "0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "minor " << c.minor << ", trimCount " << c.trimCount);
        EXPECT_EQ(Text(FormatMinorVersion(c.minor, c.trimCount)), c.left);
        EXPECT_EQ(Text(FormatMinorVersion2(c.minor, c.trimCount)), c.right);
    }
}

TEST(VersionText, JoinsMajorMinorAndBuild) {
    struct Case { unsigned long major, minor, build; int trimCount; bool forceBuild; int minorType; const char* text; };
    const Case cases[] = {
        {9, 7500, 1234, 3, false, 0, "9.75.1234"},   {9, 750, 0, 3, false, 0, "9.075"},
        {10, 0, 0, 3, false, 0, "10.0"},             {10, 0, 0, 3, true, 0, "10.0.0"},
        {12, 1000, 1001, 3, true, 0, "12.1.1001"},   {5, 12345, 7, 3, false, 0, "5.12345.7"},
        {1, 1200, 0, 1, false, 0, "1.120"},          {6, 5, 1001, 1, false, 1, "6.500.1001"},
        {9, 1234, 0, 1, false, 1, "9.1234"},         {10, 0, 1234, 1, false, 1, "10.000.1234"},
        {9, 7500, 0, 3, false, 2, "9.75"},           {9, 5, 0, 1, false, 3, "9.0005"},
        {9, 5, 0, 1, false, 2, "9.0005"},           {0, 5000, 0, 3, false, 0, "0.5"},
        // Major and build print their low 32 bits; a build is present if any of its 64 bits is set.
        {k2To32 + 7, 1, k2To32, 3, false, 0, "7.0001.0"},
        {~0ul, 0, ~0ul, 3, false, 1, "4294967295.0.4294967295"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Text(VersionToText(c.major, c.minor, c.build, c.trimCount, c.forceBuild,
                                     static_cast<MINOR_VERSION_TYPE>(c.minorType))),
                  c.text);
    }
}

TEST(VersionText, FormatVersionPushesOneString) {
    lua_State* L = luaL_newstate();
    lua_pushboolean(L, 1);
    FormatVersion(L, 10, 0, 1234, 1, false, MINOR_VERSION_RIGHT_PADDED);
    FormatVersion(L, 10, 0, 1234, 1, false, static_cast<MINOR_VERSION_TYPE>(3));
    ASSERT_EQ(lua_gettop(L), 3);
    EXPECT_EQ(lua_type(L, 1), LUA_TBOOLEAN);
    ASSERT_EQ(lua_type(L, 2), LUA_TSTRING);
    EXPECT_STREQ(lua_tostring(L, 2), "10.000.1234");
    ASSERT_EQ(lua_type(L, 3), LUA_TSTRING);
    EXPECT_STREQ(lua_tostring(L, 3), "10.0.1234");
    lua_close(L);
}

}  // namespace
