#include "catalog/catalog.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <set>
#include <utility>

namespace localrelay {
namespace {

template <class Number>
bool ParseNumber(std::string_view text, Number& value) {
    if (text.empty() || text[0] == '+') return false;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && at == end;
}

std::vector<std::string_view> Fields(std::string_view line) {
    std::vector<std::string_view> fields;
    size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
        size_t end = at;
        while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
        if (end > at) fields.push_back(line.substr(at, end - at));
        at = end;
    }
    return fields;
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

size_t LongestSegment(std::string_view path) {
    size_t longest = 0;
    while (!path.empty()) {
        const size_t end = std::min(path.find('/'), path.size());
        longest = std::max(longest, end);
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return longest;
}

bool TooLong(std::string_view path) { return path.size() > kPackagePathLimit || LongestSegment(path) > kPackageNameLimit; }

const std::string kLimits =
    " (at most " + std::to_string(kPackageNameLimit) + " bytes a name, " + std::to_string(kPackagePathLimit) + " in all)";

std::optional<Component> ParseComponentLine(const std::vector<std::string_view>& fields, Section section,
                                            std::string& reason) {
    if (fields.size() < 5 || fields.size() > 7) {
        reason = "a component line has five fields (and an optional offset and package name)";
        return std::nullopt;
    }
    Component component;
    component.section = section;
    const std::optional<Identity> identity = ParseIdentity(fields[0]);
    const std::optional<Version> version = ParseVersion(fields[1]);
    std::optional<std::string> sha = ParseSha256(fields[4]);
    if (!identity) reason = "bad identity";
    else if (!version) reason = "bad version";
    else if (TooLong(fields[2])) reason = "package path too long" + kLimits;
    else if (!IsPackagePath(fields[2])) reason = "bad package path";
    else if (!ParseNumber(fields[3], component.size) || component.size > uint64_t(INT64_MAX)) reason = "bad size";
    else if (!sha) reason = "bad SHA-256";
    else if (fields.size() > 5 && (!ParseNumber(fields[5], component.offset) || component.offset > uint64_t(INT64_MAX) ||
                                   component.size > uint64_t(INT64_MAX) - component.offset))
        reason = "bad offset";
    else if (fields.size() > 6 && TooLong(fields[6])) reason = "package name too long" + kLimits;
    else if (fields.size() > 6 && !IsPackagePath(fields[6])) reason = "bad package name";
    if (!reason.empty()) return std::nullopt;
    if (fields.size() > 6) component.name = std::string(fields[6]);
    component.identity = *identity;
    component.version = *version;
    component.path = std::string(fields[2]);
    component.sha256 = std::move(*sha);
    return component;
}

std::optional<Product> ParseProductLine(const std::vector<std::string_view>& fields, std::string& reason) {
    if (fields.size() < 2) {
        reason = "a product line has an identity and a version";
        return std::nullopt;
    }
    Product product;
    const std::optional<Identity> identity = ParseIdentity(fields[0]);
    const std::optional<Version> version = ParseVersion(fields[1]);
    if (!identity || !version) {
        reason = !identity ? "bad identity" : "bad version";
        return std::nullopt;
    }
    product.identity = *identity;
    product.version = *version;
    product.components.reserve(fields.size() - 2);
    for (size_t i = 2; i < fields.size(); ++i) {
        const std::optional<Identity> component = ParseIdentity(fields[i]);
        if (!component) {
            reason = "bad component identity";
            return std::nullopt;
        }
        product.components.push_back(*component);
    }
    // Sorted, a copy finds a repeat: a set cost about three times as much for a product naming
    // hundreds of thousands of components.
    std::vector<Identity> sorted(product.components);
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
        reason = "component listed twice";
        return std::nullopt;
    }
    return product;
}

}  // namespace

std::string FormatIdentity(const Identity& i) {
    return "c" + std::to_string(i.klass) + "t" + std::to_string(i.type) + "l" + std::to_string(i.language) + "p" +
           std::to_string(i.platform) + "r" + std::to_string(i.region) + "o" + std::to_string(i.oem);
}

std::optional<Identity> ParseIdentity(std::string_view text) {
    Identity identity;
    const std::pair<char, int32_t*> fields[] = {{'c', &identity.klass},    {'t', &identity.type},
                                                {'l', &identity.language}, {'p', &identity.platform},
                                                {'r', &identity.region},   {'o', &identity.oem}};
    for (size_t i = 0; i < 6; ++i) {
        if (text.empty() || text[0] != fields[i].first) return std::nullopt;
        text.remove_prefix(1);
        const size_t end = i + 1 < 6 ? text.find(fields[i + 1].first) : text.size();
        if (end == std::string_view::npos || !ParseNumber(text.substr(0, end), *fields[i].second)) return std::nullopt;
        text.remove_prefix(end);
    }
    return identity;
}

std::string FormatVersion(const Version& v) {
    return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.build) + "." +
           std::to_string(v.revision);
}

std::optional<Version> ParseVersion(std::string_view text) {
    Version version;
    uint64_t* parts[] = {&version.major, &version.minor, &version.build, &version.revision};
    for (size_t i = 0; i < 4; ++i) {
        const size_t end = i < 3 ? text.find('.') : text.size();
        if (end == std::string_view::npos) return std::nullopt;
        const std::string_view part = text.substr(0, end);
        if (part.empty() || part[0] == '-' || !ParseNumber(part, *parts[i])) return std::nullopt;
        text.remove_prefix(i < 3 ? end + 1 : end);
    }
    return version;
}

size_t CatalogLimit() {
    const char* text = std::getenv(kCatalogLimitVariable);
    uint64_t mib = 0;
    if (text == nullptr || !ParseNumber(std::string_view(text), mib) || mib == 0) return kDefaultCatalogLimit;
    return mib >= (SIZE_MAX >> 20) ? SIZE_MAX : size_t(mib) << 20;
}

bool IsPackagePath(std::string_view path) {
    if (path.empty() || path.front() == '/' || path.back() == '/') return false;
    if (TooLong(path)) return false;
    for (char c : path) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                             c == '_' || c == '/' || c == '-';
        if (!allowed) return false;
    }
    size_t at = 0;
    while (at <= path.size()) {
        size_t end = path.find('/', at);
        if (end == std::string_view::npos) end = path.size();
        const std::string_view segment = path.substr(at, end - at);
        if (segment.empty() || segment == "." || segment == "..") return false;
        at = end + 1;
    }
    return true;
}

std::optional<std::string> ParseSha256(std::string_view text) {
    if (text.size() != 64) return std::nullopt;
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
    }
    return lower;
}

Identity IdentityOf(const ZOVRELAY_EntityItem& e) {
    return Identity{e.klass, e.type, e.language, e.platform, e.region, e.oem};
}

Version VersionOf(const ZOVRELAY_EntityItem& e) {
    return Version{e.version.major, e.version.minor, e.version.build, e.version.revision};
}

ZOVRELAY_EntityItem EntityOf(const Identity& i, const Version& v) {
    ZOVRELAY_EntityItem entity{};
    entity.klass = i.klass;
    entity.type = i.type;
    entity.language = i.language;
    entity.platform = i.platform;
    entity.region = i.region;
    entity.oem = i.oem;
    entity.version = ZOV_Version{v.major, v.minor, v.build, v.revision};
    return entity;
}

namespace {

// The component lines of a catalog, counted in a first pass so that the components take one
// allocation of their exact size rather than a vector doubling (up to twice the memory, and a
// copy of all of it at each step).
size_t ComponentLines(std::string_view text) {
    size_t count = 0;
    bool components = false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = Trim(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') components = line == "[PATTERN]" || line == "[ENGINE]";
        else if (components) ++count;
    }
    return count;
}

bool ByIdentityVersion(const Component& a, const Component& b) {
    return std::tie(a.identity, a.version) < std::tie(b.identity, b.version);
}

// Sorts the components' indexes by identity and version into `order`; answers the line (from
// `lines`) of the first repetition of an identity and version, or SIZE_MAX.
size_t FirstRepeated(const std::vector<Component>& components, const std::vector<uint32_t>& lines,
                     std::vector<uint32_t>& order) {
    order.resize(components.size());
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return ByIdentityVersion(components[a], components[b]) || (!ByIdentityVersion(components[b], components[a]) && a < b);
    });
    size_t repeated = SIZE_MAX;
    for (size_t k = 1; k < order.size(); ++k) {
        const Component& a = components[order[k - 1]];
        const Component& b = components[order[k]];
        if (a.identity == b.identity && a.version == b.version) repeated = std::min<size_t>(repeated, lines[order[k]]);
    }
    return repeated;
}

// The reason when a product names a component the catalog does not list; empty when none does.
std::string ComponentNotListed(const Catalog& catalog, const std::vector<uint32_t>& order) {
    const std::vector<Component>& components = catalog.components;
    for (const Product& product : catalog.products) {
        for (const Identity& identity : product.components) {
            const auto found = std::lower_bound(order.begin(), order.end(), identity,
                                                [&](uint32_t i, const Identity& x) { return components[i].identity < x; });
            if (found == order.end() || components[*found].identity != identity)
                return "product " + FormatIdentity(product.identity) + " names a component not listed: " + FormatIdentity(identity);
        }
    }
    return "";
}

}  // namespace

std::optional<Catalog> ParseCatalog(std::string_view text, std::string* error) {
    enum { kNone, kPattern, kEngine, kProducts } section = kNone;
    bool seen[4] = {};
    Catalog catalog;
    std::set<std::pair<Identity, Version>> products;
    // Each component's line, for "listed twice": the check sorts indexes (4 bytes a component)
    // once parsing is done, where a set of identities and versions cost about 100.
    std::vector<uint32_t> lines;
    std::string reason;
    size_t number = 0;

    // A transfer cut short at a line boundary would otherwise pass for a smaller catalog.
    if (text.empty() || text.back() != '\n') reason = "the last line has no line end";
    else if (text.size() >= UINT32_MAX) reason = "larger than 4 GiB";
    if (reason.empty()) {
        const size_t count = ComponentLines(text);
        catalog.components.reserve(count);
        lines.reserve(count);
    }
    while (reason.empty() && !text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = Trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++number;
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            if (line == "[PATTERN]") section = kPattern;
            else if (line == "[ENGINE]") section = kEngine;
            else if (line == "[All_Product]") section = kProducts;
            else reason = "unknown section";
            if (reason.empty() && seen[section]) reason = "section given twice";
            if (reason.empty()) seen[section] = true;
            continue;
        }
        const std::vector<std::string_view> fields = Fields(line);
        if (section == kNone) {
            reason = "line outside a section";
        } else if (section == kProducts) {
            std::optional<Product> product = ParseProductLine(fields, reason);
            if (product && !products.emplace(product->identity, product->version).second) reason = "product listed twice";
            if (reason.empty()) catalog.products.push_back(std::move(*product));
        } else {
            std::optional<Component> component =
                ParseComponentLine(fields, section == kEngine ? Section::kEngine : Section::kPattern, reason);
            if (reason.empty()) {
                catalog.components.push_back(std::move(*component));
                lines.push_back(uint32_t(number));
            }
        }
    }
    if (reason.empty() && !(seen[kPattern] && seen[kEngine] && seen[kProducts])) {
        reason = "a section is missing";
        number = 0;
    }
    // Components by identity and version: the same pair twice is refused at the line that
    // repeats it (unless a line before it was malformed), and products look their components up.
    std::vector<uint32_t> order;
    const size_t repeated = FirstRepeated(catalog.components, lines, order);
    if (repeated != SIZE_MAX && (reason.empty() || number == 0 || repeated < number))
        reason = "component listed twice", number = repeated;
    std::vector<uint32_t>().swap(lines);
    if (reason.empty() && !(reason = ComponentNotListed(catalog, order)).empty()) number = 0;
    if (reason.empty()) return catalog;
    if (error != nullptr) *error = number > 0 ? "line " + std::to_string(number) + ": " + reason : reason;
    return std::nullopt;
}

std::string FormatCatalog(const Catalog& catalog) {
    std::string text;
    for (const Section section : {Section::kPattern, Section::kEngine}) {
        text += section == Section::kPattern ? "[PATTERN]\n" : "[ENGINE]\n";
        for (const Component& c : catalog.components) {
            if (c.section != section) continue;
            text += FormatIdentity(c.identity) + " " + FormatVersion(c.version) + " " + c.path + " " +
                    std::to_string(c.size) + " " + c.sha256;
            if (c.offset != 0 || !c.name.empty()) text += " " + std::to_string(c.offset);
            if (!c.name.empty()) text += " " + c.name;
            text += "\n";
        }
        text += "\n";
    }
    text += "[All_Product]\n";
    for (const Product& p : catalog.products) {
        text += FormatIdentity(p.identity) + " " + FormatVersion(p.version);
        for (const Identity& component : p.components) text += " " + FormatIdentity(component);
        text += "\n";
    }
    text += "\n";
    return text;
}

}  // namespace localrelay
