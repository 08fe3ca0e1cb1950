// Shared by the local relay's tests: a temporary directory per test, sample sources made
// in-process, the relay's calls wrapped for C++, and an independent check of a repository.
// Contexts open the machine-wide semaphore (/dev/shm/sem.zovrelay): CTest runs these tests with a
// /dev/shm of their own (tests/gates/isolated.sh).
#ifndef TESTS_UNIT_LOCALRELAY_FIXTURE_H
#define TESTS_UNIT_LOCALRELAY_FIXTURE_H

#include "archive/archive.h"
#include "catalog/catalog.h"
#include "transfer/package.h"
#include "sourcemaker.h"
#include "base/wide.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace relaytest {

namespace fs = std::filesystem;
using namespace localrelay;
using Lines = std::vector<std::string>;

// The sample source's products and the components they share (see tools/sourcemaker.cpp).
constexpr const char *kProduct0 = "c1t100l1p-1r-1o-1", *kProduct1 = "c1t101l1p-1r-1o-1";
constexpr const char *kPattern = "c3t4l1p-1r-1o-1", *kEngine = "c2t1207960066l-1p-1r-1o-1", *kRule = "c22t2213l-1p-1r-1o-1";

// Paths go in as the module passes them (each byte sign-extended) and event texts come back so.
inline std::wstring Wide(const std::string& text) { return WidenBytes(text); }
inline std::string Narrow(const wchar_t* text) { return text != nullptr ? NarrowWide(text).value_or("?") : ""; }

inline std::string ReadFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}
inline void WriteFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
inline std::string Digest(const std::string& bytes) {  // SHA-256, lower-case hex
    localrelay::Sha256 sha;
    sha.Update(bytes.data(), bytes.size());
    return sha.HexDigest();
}

// A requested product (or component) from its identity string, e.g. "c1t100l1p-1r-1o-1".
inline ZOVRELAY_EntityItem Entity(const std::string& identity, Version version = {}) {
    return EntityOf(*ParseIdentity(identity), version);
}

struct Event {
    ZOVRELAY_EventType type;
    std::string information;
    uint64_t total, finished;
};

// Subscribed to every event of a context, records each; `answer` decides what the relay is told
// (1 goes on, 0 cancels).
struct Recorder {
    std::vector<Event> events;
    std::function<int(const Event&)> answer = [](const Event&) { return 1; };

    explicit Recorder(ZOVRELAY_Context* context) {
        for (int type = 0; type <= 5; ++type) ZOVRELAY_SubscribeEvent(context, ZOVRELAY_EventType(type), &Callback, this);
    }
    Recorder(const Recorder&) = delete;
    static int Callback(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* message, void* self) {
        auto* recorder = static_cast<Recorder*>(self);
        recorder->events.push_back(Event{type, Narrow(message->information), message->total, message->finished});
        return recorder->answer(recorder->events.back());
    }
    size_t Count(ZOVRELAY_EventType type) const {
        return size_t(std::count_if(events.begin(), events.end(), [&](const Event& e) { return e.type == type; }));
    }
};

struct Context {
    ZOVRELAY_Context* handle = nullptr;
    ZOVRELAY_Status status;
    explicit Context(const std::string& path) : status(ZOVRELAY_CreateContext(&handle, Wide(path).c_str())) {}
    ~Context() { if (handle != nullptr) ZOVRELAY_DestroyContext(handle); }
};

// Products and sources as the module passes them, kept alive for the call.
struct Request {
    std::vector<std::pair<ZOVRELAY_EntityItem, std::vector<ZOVRELAY_EntityItem>>> products;
    std::vector<std::wstring> urls;

    Request& Product(const std::string& identity, std::vector<ZOVRELAY_EntityItem> parts = {}, Version version = {}) {
        return products.emplace_back(Entity(identity, version), std::move(parts)), *this;
    }
    Request& Source(const std::string& url) { return urls.push_back(Wide(url)), *this; }
};

// The status of one operation and its record, one line per product: "product version: component@version ...".
struct Outcome {
    ZOVRELAY_Status status;
    Lines lines;
    bool operator==(const Outcome& other) const { return status == other.status && lines == other.lines; }
    friend std::ostream& operator<<(std::ostream& out, const Outcome& o) { return out << o.status << " " << testing::PrintToString(o.lines); }
};

// Runs one operation and frees its record; a failed call must leave the out-parameter alone.
inline Outcome Call(RelayOperation operation, ZOVRELAY_Context* context, Request request) {
    std::vector<ZOVRELAY_Product> products;
    for (auto& [entity, parts] : request.products) products.push_back({entity, parts.empty() ? nullptr : parts.data(), parts.size()});
    std::vector<ZOVRELAY_Source> sources;
    for (std::wstring& url : request.urls) sources.push_back(ZOVRELAY_Source{url.data(), {0, 0}, nullptr});
    ZOVRELAY_Information* information = nullptr;
    Outcome outcome{operation(context, products.data(), products.size(), sources.empty() ? nullptr : sources.data(), sources.size(), &information), {}};
    EXPECT_EQ(information == nullptr, outcome.status <= 0) << "a record handed out with status " << outcome.status;
    for (size_t p = 0; information != nullptr && p < information->productCount; ++p) {
        const ZOVRELAY_Product& product = information->products[p];
        std::string line = FormatIdentity(IdentityOf(product.entity)) + " " + FormatVersion(VersionOf(product.entity)) + ":";
        for (size_t c = 0; c < product.componentCount; ++c)
            line += " " + FormatIdentity(IdentityOf(product.components[c])) + "@" + FormatVersion(VersionOf(product.components[c]));
        outcome.lines.push_back(line);
    }
    EXPECT_TRUE(information == nullptr || ZOVRELAY_DestroyData(information) == kSuccess);
    return outcome;
}

// What a repository holds, as listed without sources, and how many component versions a listing names.
inline Lines Held(ZOVRELAY_Context* context) { return Call(ZOVRELAY_GetInformation, context, Request()).lines; }
inline size_t Versions(const Lines& lines) {
    size_t n = 0;
    for (const std::string& line : lines) n += size_t(std::count(line.begin(), line.end(), '@'));
    return n;
}

// Every archive opens with libzip's consistency checks: merged ones and per-version ones (the sample
// packages are zips). Each version a merged archive's manifest lists is an entry of exactly that
// size and SHA-256, and so is its per-version archive when there. server.ini, when there, is a valid
// catalog. No hidden temporary is left, or after a killed run none ends in ".zip", which the
// module's clean-up would take for an archive. Returns the problems found.
inline Lines CheckRepository(const fs::path& repository, bool killed = false) {
    Lines problems;
    std::map<std::string, std::string> digests;  // "<identity>_<version>.zip" -> SHA-256
    auto endsWith = [](const std::string& name, const std::string& end) {
        return name.size() >= end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
    };
    for (const auto& entry : fs::directory_iterator(repository / "packages")) {
        const std::string name = entry.path().filename().string();
        if (name[0] == '.' && (!killed || endsWith(name, ".zip"))) problems.push_back(name + " is a temporary left behind");
        if (name[0] == '.' || !endsWith(name, ".zip")) continue;
        zip_t* archive = zip_open(entry.path().c_str(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
        auto read = [&](const std::string& entryName) {
            zip_stat_t stat;
            zip_file_t* file = zip_stat(archive, entryName.c_str(), 0, &stat) == 0 ? zip_fopen(archive, entryName.c_str(), 0) : nullptr;
            std::string bytes(file != nullptr ? stat.size : 0, '\0');
            if (file != nullptr && (zip_fread(file, bytes.data(), bytes.size()) != zip_int64_t(bytes.size()) || zip_fclose(file) != 0))
                bytes = "unreadable";
            return bytes;
        };
        const bool merged = endsWith(name, "_merged.zip");
        const std::optional<Manifest> manifest = archive != nullptr && merged ? ParseManifest(read("manifest")) : std::nullopt;
        if (archive == nullptr || (merged && !manifest)) problems.push_back(name + " does not open or has no valid manifest");
        for (const HeldVersion& held : manifest ? manifest->versions : std::vector<HeldVersion>{}) {
            const std::string bytes = read(EntryName(held));
            if (bytes.size() != held.size || Digest(bytes) != held.sha256) problems.push_back(name + ": " + EntryName(held) + " differs from its manifest");
            digests[VersionArchiveName(manifest->identity, held.version)] = held.sha256;
        }
        if (archive != nullptr) zip_discard(archive);
    }
    for (const auto& [name, sha] : digests)
        if (fs::exists(repository / "packages" / name) && Digest(ReadFile(repository / "packages" / name)) != sha)
            problems.push_back(name + " differs from the package its merged archive holds");
    if (!killed && fs::exists(repository / ".server.ini.tmp")) problems.push_back(".server.ini.tmp is left behind");
    if (fs::exists(repository / "server.ini") && !ParseCatalog(ReadFile(repository / "server.ini")))
        problems.push_back("server.ini is not a valid catalog");
    return problems;
}

// What server.ini or source.ini names that is not there with the size and SHA-256 it states.
inline Lines CatalogLies(const fs::path& repository, const std::string& when) {
    Lines lies;
    for (const char* name : {"server.ini", "source.ini"}) {
        const std::optional<Catalog> catalog = ParseCatalog(ReadFile(repository / name));
        for (const Component& c : catalog ? catalog->components : std::vector<Component>{}) {
            const std::string bytes = ReadFile(repository / c.path);
            if ((c.offset == 0 && bytes.size() != c.size) || Digest(bytes.substr(std::min<size_t>(c.offset, bytes.size()), c.size)) != c.sha256)
                lies.push_back(when + ": " + name + " " + c.path);
        }
    }
    return lies;
}

// A started library and a temporary directory removed afterwards.
class RelayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
        std::string pattern = (fs::temp_directory_path() / "localrelay-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override {
        ZOVRELAY_Startup(nullptr);  // a failed shutdown test must not leave the library stopped
        if (!root.empty()) fs::remove_all(root);
    }
    std::string Path(const std::string& relative) const { return (root / relative).string(); }
    // Two products of `components` each, the first three (pattern, engine, rule package) shared;
    // `versions` versions of each, with the build number `seed`.
    std::string MakeSource(const std::string& name, uint64_t seed = 1, unsigned versions = 1, unsigned components = 3, uint64_t size = 2000) {
        EXPECT_EQ(sourcemaker::MakeSource(Path(name), {2, components, size, versions, seed}), "");
        return Path(name);
    }
    fs::path root;
};

}  // namespace relaytest

#endif
