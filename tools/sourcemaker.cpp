#include "sourcemaker.h"

#include <openssl/evp.h>
#include <zip.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

namespace sourcemaker {
namespace {

namespace fs = std::filesystem;

// What component j of a product is. The first kinds are shared by every product, as the pattern
// kernel, the scan engine and the rule package are in real sources; the rest belong to one.
struct Kind {
    const char* folder;
    const char* extension;
    bool engine;  // listed under [ENGINE]
    bool shared;
    int32_t klass, type, language;  // for per-product kinds, type is offset by 100 per product
};

constexpr Kind kKinds[] = {
    {"pattern", "zip", false, true, 3, 4, 1},            // pattern of type 4, English
    {"engine", "zip", true, true, 2, 1207960066, -1},    // scan engine
    {"rule", "zip", false, true, 22, 2213, -1},          // the rule package
    {"pattern", "zip", false, false, 3, 10, 2},          // a product's own pattern, Chinese
    {"other", "pkg", false, false, 7, 20, -1},           // another class, with another extension
    {"pattern", "zip", false, true, 3, 4, 4},            // pattern of type 4, Japanese
    {"engine", "zip", true, false, 2, 30, -1},           // a product's own engine
};
constexpr size_t kKindCount = sizeof(kKinds) / sizeof(kKinds[0]);

struct Identity {
    int32_t klass, type, language;
    bool operator<(const Identity& o) const {
        return std::tie(klass, type, language) < std::tie(o.klass, o.type, o.language);
    }
};

std::string IdentityText(const Identity& i) {
    return "c" + std::to_string(i.klass) + "t" + std::to_string(i.type) + "l" + std::to_string(i.language) +
           "p-1r-1o-1";
}

// Component j of product p. Kinds past the table are further patterns of the product's own.
std::pair<const Kind*, Identity> ComponentOf(unsigned p, unsigned j) {
    static const Kind extra = {"pattern", "zip", false, false, 3, 40, 1};
    const Kind* kind = j < kKindCount ? &kKinds[j] : &extra;
    Identity identity{kind->klass, kind->type, kind->language};
    if (!kind->shared) identity.type += int32_t(100 * (p + 1) + (j < kKindCount ? 0 : j));
    if (j >= kKindCount) identity.language = int32_t(1 + j % 3);
    return {kind, identity};
}

std::string Sha256OfFile(const std::string& path, uint64_t& size) {
    std::ifstream in(path, std::ios::binary);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
    std::vector<char> buffer(64 * 1024);
    size = 0;
    while (in) {
        in.read(buffer.data(), std::streamsize(buffer.size()));
        EVP_DigestUpdate(context, buffer.data(), size_t(in.gcount()));
        size += uint64_t(in.gcount());
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context, digest, &length);
    EVP_MD_CTX_free(context);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

// A zip archive with one stored entry of random bytes; fixed time stamps keep it reproducible.
std::string WritePackage(const std::string& path, uint64_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<unsigned char> content(size);
    for (uint64_t i = 0; i < size; i += 8) {
        const uint64_t word = random();
        for (uint64_t b = 0; b < 8 && i + b < size; ++b) content[i + b] = static_cast<unsigned char>(word >> (8 * b));
    }
    fs::remove(path);
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (archive == nullptr) return "cannot create " + path;
    zip_source_t* source = zip_source_buffer(archive, content.data(), content.size(), 0);
    const zip_int64_t index = source != nullptr ? zip_file_add(archive, "content.bin", source, 0) : -1;
    if (index < 0) zip_source_free(source);
    if (index < 0 || zip_set_file_compression(archive, zip_uint64_t(index), ZIP_CM_STORE, 0) != 0 ||
        zip_file_set_mtime(archive, zip_uint64_t(index), 1262304000, 0) != 0 || zip_close(archive) != 0) {
        zip_discard(archive);
        return "cannot write " + path;
    }
    return "";
}

}  // namespace

std::string MakeSource(const std::string& directory, const Shape& shape, Summary* summary) {
    std::error_code error;
    fs::create_directories(directory, error);
    if (!fs::is_directory(directory)) return "cannot create " + directory;

    std::string patterns, engines, products;
    std::set<Identity> written;
    Summary made;
    for (unsigned p = 0; p < shape.products; ++p) {
        products += "c1t" + std::to_string(100 + p) + "l1p-1r-1o-1 10.0.0.0";
        for (unsigned j = 0; j < shape.components; ++j) {
            const auto [kind, identity] = ComponentOf(p, j);
            products += " " + IdentityText(identity);
            if (!written.insert(identity).second) continue;
            for (unsigned k = 0; k < shape.versions; ++k) {
                const std::string version = std::to_string(1 + k) + "." + std::to_string(100 * (j + 1)) + "." +
                                            std::to_string(shape.seed) + ".0";
                const std::string relative = std::string(kind->folder) + "/" + IdentityText(identity) + "-" + version +
                                             "." + kind->extension;
                const std::string path = directory + "/" + relative;
                fs::create_directories(fs::path(path).parent_path(), error);
                const uint64_t contentSeed = shape.seed * 1000003u + uint64_t(identity.type) * 131u +
                                             uint64_t(identity.klass) * 7u + uint64_t(identity.language + 1) * 17u + k;
                const std::string failure = WritePackage(path, shape.size, contentSeed);
                if (!failure.empty()) return failure;
                uint64_t size = 0;
                const std::string sha = Sha256OfFile(path, size);
                (kind->engine ? engines : patterns) +=
                    IdentityText(identity) + " " + version + " " + relative + " " + std::to_string(size) + " " + sha + "\n";
                ++made.packages;
                made.bytes += size;
            }
        }
        products += "\n";
    }

    const std::string catalog = directory + "/server.ini";
    const std::string temporary = directory + "/.server.ini.tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << "; made by makesource: " << shape.products << " products, " << shape.components
            << " components each, seed " << shape.seed << "\n"
            << "[PATTERN]\n" << patterns << "\n[ENGINE]\n" << engines << "\n[All_Product]\n" << products << "\n";
        if (!out.flush()) return "cannot write " + temporary;
    }
    fs::rename(temporary, catalog, error);
    if (error) return "cannot write " + catalog;
    if (summary != nullptr) *summary = made;
    return "";
}

}  // namespace sourcemaker
