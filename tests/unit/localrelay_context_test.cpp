// Start-up, status messages, path narrowing, argument checks and repository contexts of the local
// relay. Every repository lives in a temporary directory; /dev/shm/sem.zovrelay is shared with the machine.
#include "localrelay_fixture.h"

namespace relaytest {
namespace {

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
        {-12, L"source answered an HTTP error"}, {0, L"unknown status 0"}, {-20, L"unknown status -20"}, {INT32_MIN, L"unknown status -2147483648"},
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

using Contexts = RelayTest;

TEST_F(Contexts, CreateHoldAndReleaseTheRepository) {
    // Each case names the directory it makes first (trailing slash) or the file it writes first.
    const struct { const char* path; const char* before; ZOVRELAY_Status status; } cases[] = {
        {"a/b/c", "", kSuccess}, {"kept/", "kept/packages/x/", kSuccess}, {"r\xE9po", "", kSuccess},
        {"file", "file", kRepositoryNotAccessible}, {"file/below", "file", kRepositoryNotAccessible},
        {"p", "p/packages", kRepositoryNotAccessible},
    };
    for (const auto& c : cases) {
        const fs::path before = root / c.before;
        fs::create_directories(before.parent_path());
        if (before.has_filename()) WriteFile(before, "x");
        Context context(Path(c.path));
        EXPECT_EQ(context.status, c.status) << c.path;
        EXPECT_EQ(context.handle != nullptr, c.status == kSuccess) << c.path;
        EXPECT_EQ(fs::is_directory(root / c.path / "packages"), c.status == kSuccess) << c.path;
    }
    EXPECT_TRUE(fs::exists(root / "kept/packages/x"));

    // Contexts take no lock (writers lock .lock while they run); the semaphore outlives contexts.
    auto first = std::make_unique<Context>(Path("repo"));
    EXPECT_EQ(Context(Path("repo")).status, kSuccess);
    EXPECT_TRUE(fs::exists("/dev/shm/sem.zovrelay"));
    first.reset();
    EXPECT_EQ(Context(Path("repo")).status, kSuccess) << "destroy did not release the repository";
    EXPECT_TRUE(fs::exists("/dev/shm/sem.zovrelay")) << "destroying a context removed the semaphore";
}

// Every call but start-up, version and messages answers -2 once the library is stopped, before it
// looks at its arguments; open contexts keep their repositories through a shut-down.
TEST_F(Contexts, CallsCheckStartUpFirstThenTheirArguments) {
    Context open(Path("repo"));
    ZOVRELAY_Context* const handle = open.handle;
    ZOVRELAY_Context* untouched = reinterpret_cast<ZOVRELAY_Context*>(this);
    ZOVRELAY_Information* information = nullptr;
    const ZOVRELAY_Product product{Entity(kProduct0), nullptr, 1};
    const ZOVRELAY_Source nullSource{nullptr, {0, 0}, nullptr};
    const std::wstring invalid = {L'/', wchar_t(0xD800)};
    const struct { std::function<ZOVRELAY_Status()> call; ZOVRELAY_Status started; } calls[] = {
        {[&] { return ZOVRELAY_CreateContext(nullptr, L"/"); }, kInvalidArgument},
        {[&] { return ZOVRELAY_CreateContext(&untouched, invalid.c_str()); }, kInvalidArgument},
        {[&] { return ZOVRELAY_CreateContext(&untouched, L""); }, kRepositoryNotAccessible},
        {[&] { return ZOVRELAY_SetOption(handle, 12, -5); }, kInvalidArgument},  // a negative count
        {[&] { return ZOVRELAY_SetStringOption(handle, 0, L"1"); }, kInvalidArgument},
        {[&] { return ZOVRELAY_SubscribeEvent(handle, ZOVRELAY_EventType(6), &Recorder::Callback, nullptr); }, kInvalidArgument},
        {[&] { return ZOVRELAY_Duplicate(handle, &product, 1, nullptr, 0, &information); }, kInvalidArgument},  // no components
        {[&] { return ZOVRELAY_GetInformation(handle, nullptr, 0, nullptr, 2, &information); }, kInvalidArgument},
        {[&] { return ZOVRELAY_GetInformation(handle, nullptr, 0, &nullSource, 1, &information); }, kNoSourceReachable},
        {[&] { return ZOVRELAY_ExportComponent(handle, L"", Entity(kEngine)); }, kInvalidArgument},
        {[&] { return ZOVRELAY_DestroyData(nullptr); }, kInvalidArgument},
        {[&] { return ZOVRELAY_DestroyContext(nullptr); }, kInvalidArgument},
    };
    for (const auto& c : calls) EXPECT_EQ(c.call(), c.started) << &c - calls;
    for (const auto& [option, value, status] : {std::tuple<int, int64_t, ZOVRELAY_Status>{0, -1, kSuccess}, {11, 3, kSuccess}, {15, 7, kSuccess},
                                                 {10, -1, kInvalidArgument}, {22, 1, kInvalidArgument}, {1, 0, kInvalidArgument}, {13, 0, kInvalidArgument}})
        EXPECT_EQ(ZOVRELAY_SetOption(handle, option, value), status) << option;
    EXPECT_TRUE(untouched == reinterpret_cast<ZOVRELAY_Context*>(this) && information == nullptr) << "a refusal wrote an out-pointer";
    // A record is freed once; a second release, or a pointer not ours, is refused.
    ASSERT_EQ(ZOVRELAY_GetInformation(handle, nullptr, 0, nullptr, 0, &information), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyData(information), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyData(information), kInvalidArgument);
    ZOVRELAY_Information foreign{nullptr, 0};
    EXPECT_EQ(ZOVRELAY_DestroyData(&foreign), kInvalidArgument);

    ASSERT_EQ(ZOVRELAY_Shutdown(), kSuccess);
    for (const auto& c : calls) EXPECT_EQ(c.call(), kNotStarted) << &c - calls;
    EXPECT_EQ(ZOVRELAY_Shutdown(), kNotStarted);
    ZOV_Version version{};
    EXPECT_TRUE(ZOVRELAY_GetVersion(&version) == kSuccess && version.major == 1 && version.minor == 0 && version.build == 0);
    ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
    EXPECT_EQ(Context(Path("repo")).status, kSuccess);
    ASSERT_EQ(ZOVRELAY_Shutdown(), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyContext(open.handle), kNotStarted);
    open.handle = nullptr;
    ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
    EXPECT_EQ(Context(Path("repo")).status, kSuccess) << "destroy after shutdown did not release";
}

}  // namespace
}  // namespace relaytest
