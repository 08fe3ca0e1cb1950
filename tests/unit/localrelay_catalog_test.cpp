// The catalog format: what parses, what is refused whole, and that writing it back reads the same.
#include "catalog.h"

#include <gtest/gtest.h>

namespace {

using namespace localrelay;

const std::string kSha(64, 'a');
const std::string kPattern = "c3t4l1p-1r-1o-1 16.1230.0.0 pattern/kerno-16123.zip 48213 " + kSha + "\n";
const std::string kEngine = "c2t1207960066l-1p-1r-1o-1 9.750.1001.0 engine/scan.zip 1048576 " + kSha + "\n";
const std::string kProduct = "c1t100l1p-1r-1o-1 10.0.0.0 c3t4l1p-1r-1o-1 c2t1207960066l-1p-1r-1o-1\n";

std::string Catalog3(const std::string& patterns, const std::string& engines, const std::string& products) {
    return "[PATTERN]\n" + patterns + "[ENGINE]\n" + engines + "[All_Product]\n" + products;
}

TEST(LocalRelayCatalog, IdentitiesVersionsAndPaths) {
    const struct { const char* text; bool valid; } identities[] = {
        {"c3t4l1p-1r-1o-1", true}, {"c-2147483648t2147483647l0p0r0o0", true}, {"c3t4l1", false},
        {"c3t4l1p-1r-1o-1x", false}, {"t4c3l1p-1r-1o-1", false}, {"c3t4l1p-1r-1o+1", false},
        {"c3t4l1p-1r-1o2147483648", false}, {"c3t4l1p--1r-1o-1", false}, {"", false},
    };
    for (const auto& c : identities) {
        EXPECT_EQ(ParseIdentity(c.text).has_value(), c.valid) << c.text;
        if (c.valid) {
            EXPECT_EQ(FormatIdentity(*ParseIdentity(c.text)), c.text);
        }
    }
    const struct { const char* text; bool valid; } versions[] = {
        {"16.1230.0.0", true}, {"18446744073709551615.0.0.1", true}, {"1.2.3", false}, {"1.2.3.4.5", false},
        {"1..3.4", false}, {"1.-2.3.4", false}, {"1.2.3.4 ", false}, {"18446744073709551616.0.0.0", false},
    };
    for (const auto& c : versions) EXPECT_EQ(ParseVersion(c.text).has_value(), c.valid) << c.text;
    const struct { const char* path; bool valid; } paths[] = {
        {"a.zip", true}, {"pattern/sub/a-1_2.zip", true}, {".hidden/a.zip", true}, {"../a.zip", false},
        {"a/../b.zip", false}, {"a/./b.zip", false}, {"/etc/passwd", false}, {"a//b.zip", false},
        {"a/", false}, {"a b.zip", false}, {"a%2e.zip", false}, {"", false}, {"..", false},
    };
    for (const auto& c : paths) EXPECT_EQ(IsPackagePath(c.path), c.valid) << c.path;
}

TEST(LocalRelayCatalog, ValidCatalogs) {
    const struct { const char* what; std::string text; size_t components, products; } cases[] = {
        {"the example", Catalog3(kPattern, kEngine, kProduct), 2, 1},
        {"the clean-up's empty catalog", "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n", 0, 0},
        {"comments, blanks, tabs and CRLF", "; made by hand\r\n[PATTERN]\r\n\t" + kPattern + "# nothing\n[ENGINE]\n" + kEngine +
                                                "\n[All_Product]\n  c1t100l1p-1r-1o-1\t10.0.0.0   c3t4l1p-1r-1o-1 \r\n", 2, 1},
        {"sections in another order", "[All_Product]\n" + kProduct + "[ENGINE]\n" + kEngine + "[PATTERN]\n" + kPattern, 2, 1},
        {"one component at two versions", Catalog3(kPattern + "c3t4l1p-1r-1o-1 16.1231.0.0 p/b.zip 1 " + kSha + "\n", "", ""), 2, 0},
        {"a product without components", Catalog3("", "", "c1t100l1p-1r-1o-1 10.0.0.0\n"), 0, 1},
    };
    for (const auto& c : cases) {
        std::string error;
        const std::optional<Catalog> catalog = ParseCatalog(c.text, &error);
        ASSERT_TRUE(catalog.has_value()) << c.what << ": " << error;
        EXPECT_EQ(catalog->components.size(), c.components) << c.what;
        EXPECT_EQ(catalog->products.size(), c.products) << c.what;
        // Written back and read again, nothing changes.
        EXPECT_EQ(FormatCatalog(*ParseCatalog(FormatCatalog(*catalog))), FormatCatalog(*catalog)) << c.what;
    }
    EXPECT_EQ(FormatCatalog(Catalog{}), "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
    EXPECT_EQ(ParseCatalog(Catalog3(std::string(kPattern).replace(kPattern.find(kSha), 64, std::string(64, 'A')), "", ""))
                  ->components[0].sha256, kSha) << "digests are kept in lower case";
}

TEST(LocalRelayCatalog, AnyMalformedLineRefusesTheWhole) {
    const struct { const char* what; std::string text; const char* error; } cases[] = {
        {"empty", "", "the last line has no line end"},
        {"no final line end", Catalog3(kPattern, kEngine, kProduct.substr(0, kProduct.size() - 1)), "the last line has no line end"},
        {"a missing section", "[PATTERN]\n[ENGINE]\n", "a section is missing"},
        {"a section twice", Catalog3("", "", "") + "[ENGINE]\n", "line 4: section given twice"},
        {"an unknown section", "[PATTERNS]\n", "line 1: unknown section"},
        {"a line before any section", "x\n" + Catalog3("", "", ""), "line 1: line outside a section"},
        {"a field missing", Catalog3(kPattern.substr(0, kPattern.size() - 66) + "\n", "", ""), "line 2: a component line has five fields"},
        {"a field too many", Catalog3(kPattern.substr(0, kPattern.size() - 1) + " x\n", "", ""), "line 2: a component line has five fields"},
        {"a bad identity", Catalog3("c3t4 1.0.0.0 a.zip 1 " + kSha + "\n", "", ""), "line 2: bad identity"},
        {"a bad version", Catalog3("c3t4l1p-1r-1o-1 1.0.0 a.zip 1 " + kSha + "\n", "", ""), "line 2: bad version"},
        {"a path with ..", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 ../a.zip 1 " + kSha + "\n", "", ""), "line 2: bad package path"},
        {"an absolute path", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 /a.zip 1 " + kSha + "\n", "", ""), "line 2: bad package path"},
        {"a negative size", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip -1 " + kSha + "\n", "", ""), "line 2: bad size"},
        {"a size past 2^63", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 9223372036854775808 " + kSha + "\n", "", ""), "line 2: bad size"},
        {"a short digest", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 1 " + kSha.substr(1) + "\n", "", ""), "line 2: bad SHA-256"},
        {"a digest not hex", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 1 " + std::string(64, 'g') + "\n", "", ""), "line 2: bad SHA-256"},
        {"a component twice", Catalog3(kPattern, kPattern, ""), "line 4: component listed twice"},
        {"a product twice", Catalog3(kPattern, kEngine, kProduct + kProduct), "line 7: product listed twice"},
        {"a product's component twice", Catalog3(kPattern, "", "c1t1l1p1r1o1 1.0.0.0 c3t4l1p-1r-1o-1 c3t4l1p-1r-1o-1\n"),
         "line 5: component listed twice"},
        {"a product naming an unlisted component", Catalog3(kPattern, "", kProduct),
         "product c1t100l1p-1r-1o-1 names a component not listed: c2t1207960066l-1p-1r-1o-1"},
        {"a product without a version", Catalog3("", "", "c1t100l1p-1r-1o-1\n"), "line 4: a product line has an identity and a version"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(ParseCatalog(c.text, &error).has_value()) << c.what;
        EXPECT_EQ(error, c.error) << c.what;
    }
}

} // namespace
