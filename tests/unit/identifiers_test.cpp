#include <gtest/gtest.h>
#include <lua.hpp>

#include <ostream>
#include <random>
#include <string>
#include <tuple>

#include "entities/identifiers.h"

namespace {

struct Parsed {
    int32_t klass, type, language, platform, region, oem;
    unsigned long major, minor, build, revision;

    auto tied() const { return std::tie(klass, type, language, platform, region, oem, major, minor, build, revision); }
    bool operator==(const Parsed& other) const { return tied() == other.tied(); }
    friend std::ostream& operator<<(std::ostream& out, const Parsed& p) {
        return out << "c" << p.klass << "t" << p.type << " l" << p.language << " p" << p.platform << " r" << p.region
                   << " o" << p.oem << " v" << p.major << "." << p.minor << "." << p.build << "." << p.revision;
    }
};

struct ParseCase {
    std::string text;
    const char* message;  // null: parses to `expected`
    Parsed expected;
};

const Parsed kNone = {};

const ParseCase kParseCases[] = {
    {"c3t4", nullptr, {3, 4, -1, -1, -1, -1, 0, 0, 0, 0}},
    {"ct", nullptr, {0, 0, -1, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4v9", nullptr, {3, 4, -1, -1, -1, -1, 9, 0, 0, 0}},
    {"c3t4v9.", nullptr, {3, 4, -1, -1, -1, -1, 9, 0, 0, 0}},
    {"c3t4v1.2.3.4", nullptr, {3, 4, -1, -1, -1, -1, 1, 2000, 3, 4}},
    {"c3t4v16.0025", nullptr, {3, 4, -1, -1, -1, -1, 16, 25, 0, 0}},
    {"c3t4v1.12.345", nullptr, {3, 4, -1, -1, -1, -1, 1, 1200, 345, 0}},
    {"c3t4v1.12345", nullptr, {3, 4, -1, -1, -1, -1, 1, 1234, 0, 0}},  // a fifth digit has no weight
    {"c3t4v18446744073709551617", nullptr, {3, 4, -1, -1, -1, -1, 1, 0, 0, 0}},
    {"c4294967297t4294967299", nullptr, {1, 3, -1, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l", nullptr, {3, 4, 0, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l-", nullptr, {3, 4, 0, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l-1", nullptr, {3, 4, -1, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l-4294967297", nullptr, {3, 4, -1, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l2147483648", nullptr, {3, 4, INT32_MIN, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4l1l2", nullptr, {3, 4, 2, -1, -1, -1, 0, 0, 0, 0}},
    {"c3t4o4r3p2l1", nullptr, {3, 4, 1, 2, 3, 4, 0, 0, 0, 0}},
    {"c3t4v16.1230.0l1p-1r-1o-1", nullptr, {3, 4, 1, -1, -1, -1, 16, 1230, 0, 0}},
    {"c3t4v1.123456", "minor version too large", kNone},
    {"c3t4v1.2.3.4.5", "invalid field", kNone},
    {"c3t4l-x", "invalid field", kNone},
    {"c3t4l1v2", "invalid field", kNone},
    {"c3t4L1", "invalid field", kNone},
    {"c3t4 ", "invalid field", kNone},
    {std::string("c3t4\0l1", 7), "invalid field", kNone},  // a NUL byte does not end the identifier
    {"c3t4l1p2r3o4l5", "too many fields", kNone},
    {"c3t4l1l1l1l1l1", "too many fields", kNone},
    {"", "invalid product class", kNone},
    {"C3t4", "invalid product class", kNone},
    {" c3t4", "invalid product class", kNone},
    {"34", "invalid product class", kNone},
    {"c3x4", "invalid product type", kNone},
    {"c3", "invalid product type", kNone},
};

Parsed fieldsOf(const ZOVRELAY_EntityItem& item) {
    return {item.klass,         item.type,         item.language,      item.platform,         item.region,
            item.oem,           item.version.major, item.version.minor, item.version.build, item.version.revision};
}

TEST(Identifiers, ParsesAndRefusesWithTheExactMessage) {
    for (const ParseCase& c : kParseCases) {
        ZOVRELAY_EntityItem item;
        const char* message = ParseIdentifier(c.text.data(), c.text.size(), item);
        if (c.message == nullptr) {
            EXPECT_EQ(message, nullptr) << c.text << ": " << message;
            EXPECT_EQ(fieldsOf(item), c.expected) << c.text;
        } else {
            EXPECT_STREQ(message, c.message) << c.text;
        }
    }
}

ZOVRELAY_EntityItem entity(int32_t klass, int32_t type, unsigned long major, unsigned long minor,
                           unsigned long build, int32_t language = -1) {
    return ZOVRELAY_EntityItem{klass, type, language, -1, -1, -1, {major, minor, build, 7}};
}

std::string componentText(const ZOVRELAY_EntityItem& item) {
    char text[kIdentifierSize];
    return std::string(text, ComponentText(item, text));
}

std::string entityText(const ZOVRELAY_EntityItem& item) {
    char text[kIdentifierSize];
    return std::string(text, EntityText(item, text));
}

class LuaTest : public ::testing::Test {
protected:
    void SetUp() override {
        L = luaL_newstate();
        luaL_openlibs(L);
    }
    void TearDown() override { lua_close(L); }

    std::string productText(const ZOVRELAY_EntityItem& item) {
        int top = lua_gettop(L);
        ProductToString(L, item);
        EXPECT_EQ(lua_gettop(L), top + 1);
        std::string text = lua_tostring(L, -1);
        lua_settop(L, top);
        return text;
    }

    lua_State* L = nullptr;
};

TEST_F(LuaTest, WritersSpellEveryForm) {
    struct {
        ZOVRELAY_EntityItem item;
        const char *component, *product, *full;
    } cases[] = {
        {entity(3, 4, 16, 1230, 0, 1), "c3t4l1p-1r-1o-1", "c3t4v16.123.0l1p-1r-1o-1", "c3t4v16.1230.0l1p-1r-1o-1"},
        {entity(3, 4, 16, 5000, 0), "c3t4l-1p-1r-1o-1", "c3t4v16.5.0l-1p-1r-1o-1", "c3t4v16.5000.0l-1p-1r-1o-1"},
        {entity(3, 4, 16, 100, 0), "c3t4l-1p-1r-1o-1", "c3t4v16.01.0l-1p-1r-1o-1", "c3t4v16.0100.0l-1p-1r-1o-1"},
        {entity(3, 4, 16, 0, 0), "c3t4l-1p-1r-1o-1", "c3t4v16.0.0l-1p-1r-1o-1", "c3t4v16.0.0l-1p-1r-1o-1"},
        {entity(3, 4, 16, 5, 0), "c3t4l-1p-1r-1o-1", "c3t4v16.0005.0l-1p-1r-1o-1", "c3t4v16.0005.0l-1p-1r-1o-1"},
        // Majors and builds of 2^31 and above: signed in the full form, unsigned in the product form.
        {entity(-1, INT32_MIN, 4294967295ul, 1, 2147483648ul), "c-1t-2147483648l-1p-1r-1o-1",
         "c-1t-2147483648v4294967295.0001.2147483648l-1p-1r-1o-1", "c-1t-2147483648v-1.0001.-2147483648l-1p-1r-1o-1"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(componentText(c.item), c.component);
        EXPECT_EQ(productText(c.item), c.product);
        EXPECT_EQ(entityText(c.item), c.full);
    }
}

TEST_F(LuaTest, ProductTextGoesThroughTheHostsStringFormat) {
    ASSERT_EQ(luaL_dostring(L, "string.format = function(t, v) return t .. '|' .. v end"), 0);
    EXPECT_EQ(productText(entity(3, 4, 1, 0, 2)), "c3t4v%sl-1p-1r-1o-1|1.0.2");
}

// Whatever the writers produce parses back to the same identity, within the documented bounds.
TEST_F(LuaTest, WrittenIdentifiersParseBack) {
    std::mt19937_64 random(20261123);
    auto pick32 = [&]() {
        switch (random() % 4) {
            case 0: return static_cast<int32_t>(random() % 16) - 1;
            case 1: return INT32_MIN + static_cast<int32_t>(random() % 2);
            case 2: return INT32_MAX;
            default: return static_cast<int32_t>(static_cast<uint32_t>(random()));
        }
    };
    for (int i = 0; i < 5000; ++i) {
        // Class and type carry no sign in the notation, so only non-negative ones come back.
        ZOVRELAY_EntityItem item{pick32() & INT32_MAX, pick32() & INT32_MAX, pick32(), pick32(), pick32(), pick32(),
                                 {random() % 2147483648ul, random() % 10000, random() % 2147483648ul, random()}};
        Parsed want = fieldsOf(item);
        want.revision = 0;
        ZOVRELAY_EntityItem back;

        std::string full = entityText(item);
        ASSERT_EQ(ParseIdentifier(full.data(), full.size(), back), nullptr) << full;
        EXPECT_EQ(fieldsOf(back), want) << full;

        item.version.major += 2147483648ul;  // the product form holds unsigned 32-bit majors and builds
        item.version.build += 2147483648ul;
        want.major = item.version.major;
        want.build = item.version.build;
        std::string product = productText(item);
        ASSERT_EQ(ParseIdentifier(product.data(), product.size(), back), nullptr) << product;
        EXPECT_EQ(fieldsOf(back), want) << product;

        std::string component = componentText(item);
        ASSERT_EQ(ParseIdentifier(component.data(), component.size(), back), nullptr) << component;
        want.major = want.minor = want.build = 0;
        EXPECT_EQ(fieldsOf(back), want) << component;
    }
}

}  // namespace
