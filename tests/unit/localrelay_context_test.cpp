// Start-up, status messages, path narrowing and repository contexts of the local relay. Every
// repository lives in a temporary directory; /dev/shm/sem.zovrelay is shared with the machine.
#include "status.h"
#include "wide.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

namespace fs = std::filesystem;
using namespace localrelay;

namespace {

const fs::path kSemaphore = "/dev/shm/sem.zovrelay";

// Every context opens the machine-wide semaphore; leave the file as this run found it.
struct SemaphoreFileState : ::testing::Environment {
    void SetUp() override { existed = fs::exists(kSemaphore); }
    void TearDown() override { if (!existed) fs::remove(kSemaphore); }
    bool existed = true;
};
::testing::Environment* const semaphoreFileState = ::testing::AddGlobalTestEnvironment(new SemaphoreFileState);

struct Context {
    ZOVRELAY_Context* handle = nullptr;
    ZOVRELAY_Status status;
    explicit Context(const std::wstring& path) : status(ZOVRELAY_CreateContext(&handle, path.c_str())) {}
    ~Context() { if (handle != nullptr) ZOVRELAY_DestroyContext(handle); }
};

class LocalRelay : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
        std::string pattern = (fs::temp_directory_path() / "localrelay-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override {
        ZOVRELAY_Startup(nullptr); // a failed shutdown test must not leave the library stopped
        if (!root.empty()) fs::remove_all(root);
    }
    // The path as the module passes it: each byte sign-extended.
    std::wstring At(const std::string& relative) const {
        std::wstring wide;
        for (char c : (root / relative).string()) wide += static_cast<wchar_t>(static_cast<signed char>(c));
        return wide;
    }
    fs::path root;
};

TEST(LocalRelayNarrowing, BytesComeBackAndCodePointsBecomeUtf8) {
    const struct { std::wstring wide; std::optional<std::string> bytes; } cases[] = {
        {L"/srv/repo", "/srv/repo"},
        {{wchar_t(0x7F), wchar_t(0xFFFFFF80), wchar_t(0xFFFFFFE9), wchar_t(0xFFFFFFFF)}, "\x7F\x80\xE9\xFF"},
        {{wchar_t(0x80), wchar_t(0x7FF), wchar_t(0x800), wchar_t(0xFFFF)}, "\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {{wchar_t(0x10000), wchar_t(0x10FFFF)}, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {{L'a', wchar_t(0xD800)}, std::nullopt}, {{wchar_t(0xDFFF)}, std::nullopt},
        {{wchar_t(0x110000)}, std::nullopt}, {{wchar_t(0xFFFFFF7F)}, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(NarrowWide(c.wide.c_str()), c.bytes) << testing::PrintToString(c.wide);
}

TEST(LocalRelayStatus, MessagesAndTheirBound) {
    const struct { ZOVRELAY_Status status; std::wstring message; } cases[] = {
        {1, L"success"}, {-1, L"invalid argument"}, {-2, L"relay library not started"}, {-3, L"repository not accessible"},
        {-4, L"out of memory"}, {-5, L"no source reachable"}, {-6, L"not found"}, {-7, L"integrity check failed"},
        {-8, L"cancelled"}, {-9, L"repository is busy"}, {-10, L"i/o error"}, {-11, L"invalid catalog"},
        {0, L"unknown status 0"}, {-12, L"unknown status -12"}, {INT32_MIN, L"unknown status -2147483648"},
    };
    for (const auto& c : cases) {
        wchar_t buffer[80];
        std::wmemset(buffer, L'#', 80);
        ZOVRELAY_GetStatusMessage(buffer, c.status);
        EXPECT_EQ(buffer, c.message);
        EXPECT_EQ(std::wstring(buffer + 64, 16), std::wstring(16, L'#')) << "wrote past 64 characters";
    }
    EXPECT_EQ(ZOVRELAY_GetStatusMessage(nullptr, 1), kInvalidArgument);
}

TEST_F(LocalRelay, CreatesTheRepositoryOrRefusesIt) {
    // Each case names the directory it makes first (trailing slash) or the file it writes first.
    const struct { const char* path; const char* before; ZOVRELAY_Status status; } cases[] = {
        {"a/b/c", "", kSuccess},
        {"kept/", "kept/packages/x/", kSuccess},
        {"r\xE9po", "", kSuccess},
        {"file", "file", kRepositoryNotAccessible},
        {"file/below", "file", kRepositoryNotAccessible},
        {"p", "p/packages", kRepositoryNotAccessible},
    };
    for (const auto& c : cases) {
        const fs::path before = root / c.before;
        fs::create_directories(before.parent_path());
        if (before.has_filename()) std::ofstream(before) << "x";
        Context context(At(c.path));
        EXPECT_EQ(context.status, c.status) << c.path;
        EXPECT_EQ(context.handle != nullptr, c.status == kSuccess) << c.path;
        EXPECT_EQ(fs::is_directory(root / c.path / "packages"), c.status == kSuccess) << c.path;
    }
    EXPECT_TRUE(fs::exists(root / "kept/packages/x"));
}

TEST_F(LocalRelay, AContextHoldsItsRepositoryAndTheSemaphore) {
    {
        Context first(At("repo"));
        ASSERT_EQ(first.status, kSuccess);
        EXPECT_EQ(Context(At("repo")).status, kRepositoryBusy);
        EXPECT_EQ(Context(At("other")).status, kSuccess);
        EXPECT_TRUE(fs::exists(kSemaphore));
    }
    EXPECT_EQ(Context(At("repo")).status, kSuccess) << "destroy did not release the repository";
    EXPECT_TRUE(fs::exists(kSemaphore)) << "destroying a context removed the semaphore";
}

TEST_F(LocalRelay, RefusesMissingArguments) {
    ZOVRELAY_Context* untouched = reinterpret_cast<ZOVRELAY_Context*>(this);
    const std::wstring invalid = {L'/', wchar_t(0xD800)};
    EXPECT_EQ(ZOVRELAY_CreateContext(nullptr, At("repo").c_str()), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_CreateContext(&untouched, nullptr), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_CreateContext(&untouched, invalid.c_str()), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_CreateContext(&untouched, L""), kRepositoryNotAccessible);
    EXPECT_EQ(untouched, reinterpret_cast<ZOVRELAY_Context*>(this)) << "a refusal wrote the out-pointer";
    EXPECT_EQ(ZOVRELAY_DestroyContext(nullptr), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_DestroyData(nullptr), kInvalidArgument);
}

TEST_F(LocalRelay, ShutdownStopsCallsButKeepsOpenContexts) {
    Context open(At("repo"));
    ASSERT_EQ(open.status, kSuccess);
    ZOVRELAY_Information* information = nullptr;
    ZOV_Version version{};
    const std::function<ZOVRELAY_Status()> calls[] = {
        [&] { ZOVRELAY_Context* c = nullptr; return ZOVRELAY_CreateContext(&c, At("new").c_str()); },
        [&] { return ZOVRELAY_SetOption(open.handle, 10, 1); },
        [&] { return ZOVRELAY_SetStringOption(open.handle, 22, L"exe"); },
        [&] { return ZOVRELAY_SubscribeEvent(open.handle, ZOVRELAY_EVENT_PROGRESS, nullptr, nullptr); },
        [&] { return ZOVRELAY_GetInformation(open.handle, nullptr, 0, nullptr, 0, &information); },
        [&] { return ZOVRELAY_Duplicate(open.handle, nullptr, 0, nullptr, 0, &information); },
        [&] { return ZOVRELAY_ExportComponent(open.handle, At("out").c_str(), ZOVRELAY_EntityItem{}); },
        [&] { return ZOVRELAY_DestroyData(nullptr); },
        [&] { return ZOVRELAY_Shutdown(); },
    };
    ASSERT_EQ(ZOVRELAY_Shutdown(), kSuccess);
    for (const auto& call : calls) EXPECT_EQ(call(), kNotStarted);
    EXPECT_EQ(ZOVRELAY_GetVersion(&version), kSuccess);
    EXPECT_TRUE(version.major == 1 && version.minor == 0 && version.build == 0 && version.revision == 0);

    ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
    EXPECT_EQ(Context(At("repo")).status, kRepositoryBusy) << "shutdown released an open context's lock";
    ASSERT_EQ(ZOVRELAY_Shutdown(), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyContext(open.handle), kNotStarted);
    open.handle = nullptr;
    ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
    EXPECT_EQ(Context(At("repo")).status, kSuccess) << "destroy after shutdown did not release";
}

} // namespace
