// The catalog format (server.ini) of sources and repositories, and the identities and versions
// written in it. Parsing is all or nothing: one malformed line makes the whole catalog invalid.
#ifndef LOCALRELAY_CATALOG_H
#define LOCALRELAY_CATALOG_H

#include "zovrelay.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace localrelay {

struct Identity {
    int32_t klass = 0, type = 0, language = 0, platform = 0, region = 0, oem = 0;

    auto Tie() const { return std::tie(klass, type, language, platform, region, oem); }
    bool operator==(const Identity& other) const { return Tie() == other.Tie(); }
    bool operator!=(const Identity& other) const { return Tie() != other.Tie(); }
    bool operator<(const Identity& other) const { return Tie() < other.Tie(); }
};

struct Version {
    uint64_t major = 0, minor = 0, build = 0, revision = 0;

    auto Tie() const { return std::tie(major, minor, build, revision); }
    bool operator==(const Version& other) const { return Tie() == other.Tie(); }
    bool operator!=(const Version& other) const { return Tie() != other.Tie(); }
    bool operator<(const Version& other) const { return Tie() < other.Tie(); }
    bool IsZero() const { return major == 0 && minor == 0 && build == 0 && revision == 0; }
};

// "c3t4l1p-1r-1o-1": all six fields, in this order.
std::string FormatIdentity(const Identity& identity);
std::optional<Identity> ParseIdentity(std::string_view text);
// "16.1230.0.0": four unsigned decimals.
std::string FormatVersion(const Version& version);
std::optional<Version> ParseVersion(std::string_view text);
// Relative, only [A-Za-z0-9._/-], no empty, "." or ".." segment: it names a file under its source.
// At most kPackagePathLimit bytes, each segment at most kPackageNameLimit: an export writes the
// file name beside a temporary of about 30 bytes more, and file systems stop names at 255.
inline constexpr size_t kPackageNameLimit = 200;
inline constexpr size_t kPackagePathLimit = 1024;
bool IsPackagePath(std::string_view path);
// 64 hexadecimal digits, answered in lower case.
std::optional<std::string> ParseSha256(std::string_view text);

Identity IdentityOf(const ZOVRELAY_EntityItem& entity);
Version VersionOf(const ZOVRELAY_EntityItem& entity);
ZOVRELAY_EntityItem EntityOf(const Identity& identity, const Version& version);

enum class Section { kPattern, kEngine };

struct Component {
    Section section = Section::kPattern;
    Identity identity;
    Version version;
    std::string path;  // relative to the catalog's directory
    uint64_t size = 0;
    std::string sha256;  // lower-case hex
    // 0: the package is the whole file at `path`. Otherwise the package is the `size` bytes that
    // start at this byte of the file at `path` (a version stored inside a repository's merged archive).
    uint64_t offset = 0;
    // The package's own path when `path` names a file that holds it among others (a merged
    // archive); empty: `path` is the package's own. Its file name is what exports write.
    std::string name;

    const std::string& PackagePath() const { return name.empty() ? path : name; }
};

struct Product {
    Identity identity;
    Version version;
    std::vector<Identity> components;  // each listed in the catalog's component sections
};

struct Catalog {
    std::vector<Component> components;  // in file order; one identity may appear at several versions
    std::vector<Product> products;      // in file order
};

// The largest catalog read, in bytes: the environment's UPDATE_MAX_CATALOG_MIB (MiB, a positive
// integer) or else kDefaultCatalogLimit, about 1,500,000 components of a vendor's catalog.
inline constexpr const char* kCatalogLimitVariable = "UPDATE_MAX_CATALOG_MIB";
inline constexpr size_t kDefaultCatalogLimit = size_t(256) << 20;
size_t CatalogLimit();

// nullopt for a malformed catalog; `error` then names the line and what is wrong with it.
std::optional<Catalog> ParseCatalog(std::string_view text, std::string* error = nullptr);
// The three sections in order, each followed by an empty line: an empty catalog is the same 36
// bytes that the module's clean-up writes.
std::string FormatCatalog(const Catalog& catalog);

}  // namespace localrelay

#endif
