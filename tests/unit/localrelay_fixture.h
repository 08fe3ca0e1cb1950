// Shared by the local relay's tests that mirror: a temporary directory per test, sample sources
// made in-process, the relay's calls wrapped for C++, and an independent check of a repository.
// Contexts open the machine-wide semaphore (/dev/shm/sem.zovrelay): tests that include this take
// CTest's lock on it by naming the file in a comment.
#ifndef TESTS_UNIT_LOCALRELAY_FIXTURE_H
#define TESTS_UNIT_LOCALRELAY_FIXTURE_H

#include "archive.h"
#include "catalog.h"
#include "sourcemaker.h"
#include "status.h"
#include "wide.h"
#include "zovrelay.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zip.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace relaytest {

namespace fs = std::filesystem;
using namespace localrelay;

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

inline std::string Sha256(const std::string& bytes) {
    unsigned char digest[32];
    EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha256(), nullptr);
    std::string hex;
    for (unsigned char byte : digest) hex += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    return hex;
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

// Records every event; `answer` decides what the relay is told (1 goes on, 0 cancels).
struct Recorder {
    std::vector<Event> events;
    std::function<int(const Event&)> answer = [](const Event&) { return 1; };

    static int Callback(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* message, void* self) {
        auto* recorder = static_cast<Recorder*>(self);
        recorder->events.push_back(Event{type, Narrow(message->information), message->total, message->finished});
        return recorder->answer(recorder->events.back());
    }
    void SubscribeAll(ZOVRELAY_Context* context) {
        for (int type = 0; type <= 5; ++type)
            ZOVRELAY_SubscribeEvent(context, ZOVRELAY_EventType(type), &Callback, this);
    }
    size_t Count(ZOVRELAY_EventType type) const {
        size_t n = 0;
        for (const Event& e : events) n += e.type == type;
        return n;
    }
};

struct Context {
    ZOVRELAY_Context* handle = nullptr;
    ZOVRELAY_Status status;
    explicit Context(const std::string& path) : status(ZOVRELAY_CreateContext(&handle, Wide(path).c_str())) {}
    ~Context() {
        if (handle != nullptr) ZOVRELAY_DestroyContext(handle);
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
};

// Products and sources as the module lays them out, kept alive for the call.
struct Request {
    std::vector<ZOVRELAY_Product> products;
    std::vector<std::vector<ZOVRELAY_EntityItem>> components;
    std::vector<std::wstring> urls;
    std::vector<ZOVRELAY_Source> sources;

    Request& Product(const std::string& identity, std::vector<ZOVRELAY_EntityItem> parts = {}, Version version = {}) {
        components.push_back(std::move(parts));
        products.push_back(ZOVRELAY_Product{Entity(identity, version), nullptr, 0});
        return *this;
    }
    Request& Source(const std::string& url) {
        urls.push_back(Wide(url));
        return *this;
    }
    void Prepare() {
        for (size_t i = 0; i < products.size(); ++i) {
            products[i].components = components[i].empty() ? nullptr : components[i].data();
            products[i].componentCount = components[i].size();
        }
        sources.clear();
        for (std::wstring& url : urls) sources.push_back(ZOVRELAY_Source{url.data(), {0, 0}, nullptr});
    }
};

// The listing of an information record, one line per product: "product version: component
// version, ...", which reads well in a failed expectation.
struct Outcome {
    ZOVRELAY_Status status;
    std::vector<std::string> lines;
};

inline std::vector<std::string> Describe(const ZOVRELAY_Information* information) {
    std::vector<std::string> lines;
    for (size_t p = 0; information != nullptr && p < information->productCount; ++p) {
        const ZOVRELAY_Product& product = information->products[p];
        std::string line = FormatIdentity(IdentityOf(product.entity)) + " " + FormatVersion(VersionOf(product.entity)) + ":";
        for (size_t c = 0; c < product.componentCount; ++c)
            line += " " + FormatIdentity(IdentityOf(product.components[c])) + "@" +
                    FormatVersion(VersionOf(product.components[c]));
        lines.push_back(line);
    }
    return lines;
}

// Runs one operation and frees its record; a failed call must leave the out-parameter alone.
inline Outcome Call(RelayOperation operation, ZOVRELAY_Context* context, Request request) {
    request.Prepare();
    ZOVRELAY_Information* information = nullptr;
    Outcome outcome;
    outcome.status = operation(context, request.products.data(), request.products.size(),
                               request.sources.empty() ? nullptr : request.sources.data(), request.sources.size(),
                               &information);
    if (outcome.status <= 0) {
        EXPECT_EQ(information, nullptr) << "a failure handed out a record";
        return outcome;
    }
    outcome.lines = Describe(information);
    if (information != nullptr) {
        EXPECT_EQ(ZOVRELAY_DestroyData(information), kSuccess);
    }
    return outcome;
}

// Every merged archive opens with libzip's consistency checks and each version its manifest lists
// is an entry of exactly that size and SHA-256; every per-version archive that a manifest lists
// has that digest; server.ini, when there, is a valid catalog. Returns the problems found.
inline std::vector<std::string> CheckRepository(const fs::path& repository) {
    std::vector<std::string> problems;
    std::map<std::string, std::string> digests;  // "<identity>_<version>.zip" -> SHA-256
    for (const auto& entry : fs::directory_iterator(repository / "packages")) {
        const std::string name = entry.path().filename().string();
        if (name.size() < 11 || name.compare(name.size() - 11, 11, "_merged.zip") != 0) continue;
        zip_t* archive = zip_open(entry.path().c_str(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
        auto read = [&](const std::string& entryName) {
            zip_stat_t stat;
            zip_file_t* file = zip_stat(archive, entryName.c_str(), 0, &stat) == 0 ? zip_fopen(archive, entryName.c_str(), 0) : nullptr;
            std::string bytes(file != nullptr ? stat.size : 0, '\0');
            if (file != nullptr && (zip_fread(file, bytes.data(), bytes.size()) != zip_int64_t(bytes.size()) || zip_fclose(file) != 0))
                bytes = "unreadable";
            return bytes;
        };
        const std::optional<Manifest> manifest = archive != nullptr ? ParseManifest(read("manifest")) : std::nullopt;
        if (!manifest) problems.push_back(name + " does not open or has no valid manifest");
        for (const HeldVersion& held : manifest ? manifest->versions : std::vector<HeldVersion>{}) {
            const std::string bytes = read(EntryName(held));
            if (bytes.size() != held.size || Sha256(bytes) != held.sha256)
                problems.push_back(name + ": " + EntryName(held) + " does not match its manifest");
            digests[VersionArchiveName(manifest->identity, held.version)] = held.sha256;
        }
        if (archive != nullptr) zip_discard(archive);
    }
    for (const auto& [name, sha] : digests)
        if (fs::exists(repository / "packages" / name) && Sha256(ReadFile(repository / "packages" / name)) != sha)
            problems.push_back(name + " differs from the package its merged archive holds");
    if (fs::exists(repository / "server.ini") && !ParseCatalog(ReadFile(repository / "server.ini")))
        problems.push_back("server.ini is not a valid catalog");
    return problems;
}

// Hidden temporaries left in packages/ and the root.
inline std::vector<std::string> Temporaries(const fs::path& repository) {
    std::vector<std::string> found;
    for (const fs::path& directory : {repository, repository / "packages"})
        for (const auto& entry : fs::directory_iterator(directory))
            if (entry.path().filename().string()[0] == '.') found.push_back(entry.path().filename().string());
    return found;
}

class RelayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
        std::string pattern = (fs::temp_directory_path() / "localrelay-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        semaphoreExisted = fs::exists("/dev/shm/sem.zovrelay");
    }
    void TearDown() override {
        ZOVRELAY_Startup(nullptr);
        if (!root.empty()) fs::remove_all(root);
        if (!semaphoreExisted) fs::remove("/dev/shm/sem.zovrelay");
    }
    std::string Path(const std::string& relative) const { return (root / relative).string(); }
    std::string MakeSource(const std::string& relative, sourcemaker::Shape shape = {}) {
        const std::string error = sourcemaker::MakeSource(Path(relative), shape);
        EXPECT_EQ(error, "");
        return Path(relative);
    }

    fs::path root;
    bool semaphoreExisted = true;
};

}  // namespace relaytest

#endif
