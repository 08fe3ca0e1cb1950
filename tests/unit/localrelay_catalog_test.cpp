// The catalog format: what parses, what is refused whole, and that writing it back reads the same.
#include "catalog/catalog.h"

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

// Identities (which format back as they were), versions and package paths: kind 'i', 'v' or 'p'.
TEST(LocalRelayCatalog, IdentitiesVersionsAndPaths) {
    const struct { char kind; const char* text; bool valid; } cases[] = {
        {'i', "c3t4l1p-1r-1o-1", true}, {'i', "c-2147483648t2147483647l0p0r0o0", true}, {'i', "c3t4l1", false},
        {'i', "c3t4l1p-1r-1o-1x", false}, {'i', "t4c3l1p-1r-1o-1", false}, {'i', "c3t4l1p-1r-1o+1", false},
        {'i', "c3t4l1p-1r-1o2147483648", false}, {'i', "c3t4l1p--1r-1o-1", false}, {'i', "", false},
        {'v', "16.1230.0.0", true}, {'v', "18446744073709551615.0.0.1", true}, {'v', "1.2.3", false}, {'v', "1.2.3.4.5", false},
        {'v', "1..3.4", false}, {'v', "1.-2.3.4", false}, {'v', "1.2.3.4 ", false}, {'v', "18446744073709551616.0.0.0", false},
        {'p', "a.zip", true}, {'p', "pattern/sub/a-1_2.zip", true}, {'p', ".hidden/a.zip", true}, {'p', "../a.zip", false},
        {'p', "a/../b.zip", false}, {'p', "a/./b.zip", false}, {'p', "/etc/passwd", false}, {'p', "a//b.zip", false},
        {'p', "a/", false}, {'p', "a b.zip", false}, {'p', "a%2e.zip", false}, {'p', "", false}, {'p', "..", false},
    };
    for (const auto& c : cases) {
        const std::optional<Identity> identity = ParseIdentity(c.text);
        const bool valid = c.kind == 'i' ? identity.has_value() : c.kind == 'v' ? ParseVersion(c.text).has_value() : IsPackagePath(c.text);
        EXPECT_EQ(valid, c.valid) << c.kind << " " << c.text;
        EXPECT_TRUE(c.kind != 'i' || !identity || FormatIdentity(*identity) == c.text) << c.text;
    }
}

// A catalog parses whole, and written back reads the same, or any malformed line refuses it all.
TEST(LocalRelayCatalog, ParsesWholeOrNotAtAll) {
    const struct { const char* what; std::string text; const char* error; size_t components = 0, products = 0; } cases[] = {
        {"the example", Catalog3(kPattern, kEngine, kProduct), "", 2, 1},
        {"the clean-up's empty catalog", "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n", ""},
        {"comments, blanks, tabs and CRLF", "; made by hand\r\n[PATTERN]\r\n\t" + kPattern + "# nothing\n[ENGINE]\n" + kEngine +
                                                "\n[All_Product]\n  c1t100l1p-1r-1o-1\t10.0.0.0   c3t4l1p-1r-1o-1 \r\n", "", 2, 1},
        {"sections in another order", "[All_Product]\n" + kProduct + "[ENGINE]\n" + kEngine + "[PATTERN]\n" + kPattern, "", 2, 1},
        {"one component at two versions", Catalog3(kPattern + "c3t4l1p-1r-1o-1 16.1231.0.0 p/b.zip 1 " + kSha + "\n", "", ""), "", 2, 0},
        {"a product without components", Catalog3("", "", "c1t100l1p-1r-1o-1 10.0.0.0\n"), "", 0, 1},
        {"empty", "", "the last line has no line end"},
        {"no final line end", Catalog3(kPattern, kEngine, kProduct.substr(0, kProduct.size() - 1)), "the last line has no line end"},
        {"a missing section", "[PATTERN]\n[ENGINE]\n", "a section is missing"},
        {"a section twice", Catalog3("", "", "") + "[ENGINE]\n", "line 4: section given twice"},
        {"an unknown section", "[PATTERNS]\n", "line 1: unknown section"},
        {"a line before any section", "x\n" + Catalog3("", "", ""), "line 1: line outside a section"},
        {"a field missing", Catalog3(kPattern.substr(0, kPattern.size() - 66) + "\n", "", ""), "line 2: a component line has five fields (and an optional offset and package name)"},
        {"a bad offset", Catalog3(kPattern.substr(0, kPattern.size() - 1) + " x\n", "", ""), "line 2: bad offset"},
        {"a bad identity", Catalog3("c3t4 1.0.0.0 a.zip 1 " + kSha + "\n", "", ""), "line 2: bad identity"},
        {"a bad version", Catalog3("c3t4l1p-1r-1o-1 1.0.0 a.zip 1 " + kSha + "\n", "", ""), "line 2: bad version"},
        {"an absolute path", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 /a.zip 1 " + kSha + "\n", "", ""), "line 2: bad package path"},
        {"a package name past 200 bytes", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 p/" + std::string(201, 'a') + " 1 " + kSha + "\n", "", ""),
         "line 2: package path too long (at most 200 bytes a name, 1024 in all)"},
        {"a path past 1024 bytes", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 " + std::string(1020, 'a') + "/b.zip 1 " + kSha + " 0 p/" + std::string(200, 'a') + "\n", "", ""),
         "line 2: package path too long (at most 200 bytes a name, 1024 in all)"},
        {"a package name of 200 bytes", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 1 " + kSha + " 0 p/" + std::string(200, 'a') + "\n", "", ""), "", 1, 0},
        {"a negative size", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip -1 " + kSha + "\n", "", ""), "line 2: bad size"},
        {"a size past 2^63", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 9223372036854775808 " + kSha + "\n", "", ""), "line 2: bad size"},
        {"a short digest", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 1 " + kSha.substr(1) + "\n", "", ""), "line 2: bad SHA-256"},
        {"a digest not hex", Catalog3("c3t4l1p-1r-1o-1 1.0.0.0 a.zip 1 " + std::string(64, 'g') + "\n", "", ""), "line 2: bad SHA-256"},
        {"a component twice", Catalog3(kPattern, kPattern, ""), "line 4: component listed twice"},
        {"a component twice, the second on the last line", "[All_Product]\n[PATTERN]\n[ENGINE]\n" + kEngine + kEngine, "line 5: component listed twice"},
        {"a product twice", Catalog3(kPattern, kEngine, kProduct + kProduct), "line 7: product listed twice"},
        {"a product's component twice", Catalog3(kPattern, "", "c1t1l1p1r1o1 1.0.0.0 c3t4l1p-1r-1o-1 c3t4l1p-1r-1o-1\n"),
         "line 5: component listed twice"},
        {"a product naming an unlisted component", Catalog3(kPattern, "", kProduct),
         "product c1t100l1p-1r-1o-1 names a component not listed: c2t1207960066l-1p-1r-1o-1"},
        {"a product without a version", Catalog3("", "", "c1t100l1p-1r-1o-1\n"), "line 4: a product line has an identity and a version"},
    };
    for (const auto& c : cases) {
        std::string error;
        const std::optional<Catalog> catalog = ParseCatalog(c.text, &error);
        EXPECT_EQ(catalog ? "" : error, c.error) << c.what;
        if (!catalog) continue;
        EXPECT_EQ(std::pair(catalog->components.size(), catalog->products.size()), std::pair(c.components, c.products)) << c.what;
        EXPECT_EQ(FormatCatalog(*ParseCatalog(FormatCatalog(*catalog))), FormatCatalog(*catalog)) << c.what;
    }
    EXPECT_EQ(ParseCatalog(Catalog3(std::string(kPattern).replace(kPattern.find(kSha), 64, std::string(64, 'A')), "", ""))
                  ->components[0].sha256, kSha) << "digests are kept in lower case";
}

} // namespace
