// Listing, mirroring, retention, the blacklist, events, cancellation and export through the C
// interface, with sources made by the sample-source maker. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"

namespace relaytest {
namespace {

constexpr const char* kProduct0 = "c1t100l1p-1r-1o-1";
constexpr const char* kProduct1 = "c1t101l1p-1r-1o-1";
constexpr const char* kPattern = "c3t4l1p-1r-1o-1";  // shared by both products
constexpr const char* kEngine = "c2t1207960066l-1p-1r-1o-1";

std::vector<std::string> Lines(std::initializer_list<std::string> lines) { return lines; }

class Mirror : public RelayTest {
protected:
    // Two products of three components each (pattern, engine, rule package: all shared).
    static sourcemaker::Shape Small(uint64_t seed = 1, unsigned versions = 1) { return {2, 3, 2000, versions, seed}; }
    std::vector<std::string> Merged(const std::string& repository) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(fs::path(repository) / "packages")) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(Mirror, ListsWhatASourceOffersAndWhatARepositoryHolds) {
    const std::string source = MakeSource("source", Small(1, 2));
    Context context(Path("repo"));
    ASSERT_EQ(context.status, kSuccess);

    const std::string engine = std::string(kEngine) + "@2.200.1.0";
    const std::string rule = "c22t2213l-1p-1r-1o-1@2.300.1.0";
    const std::string product0 = std::string(kProduct0) + " 10.0.0.0: " + kPattern + "@2.100.1.0 " + engine + " " + rule;
    const std::string product1 = std::string(kProduct1) + " 10.0.0.0: " + kPattern + "@2.100.1.0 " + engine + " " + rule;
    const struct {
        const char* what;
        Request request;
        Outcome expected;
    } cases[] = {
        {"every product, newest versions only", Request().Source(source), {kSuccess, Lines({product0, product1})}},
        {"a file URL", Request().Source("file://" + source).Product(kProduct1), {kSuccess, Lines({product1})}},
        {"wildcards in the request", Request().Source(source).Product("c1t100l-1p-1r-1o-1"), {kSuccess, Lines({product0})}},
        {"an address ending in /", Request().Source(source + "/").Product(kProduct0), {kSuccess, Lines({product0})}},
        {"a language that is not listed", Request().Source(source).Product("c1t100l2p-1r-1o-1"), {kNotFound, {}}},
        {"a version equal but for the revision", Request().Source(source).Product(kProduct0, {}, {10, 0, 0, 7}), {kSuccess, Lines({product0})}},
        {"another build", Request().Source(source).Product(kProduct0, {}, {10, 0, 1, 0}), {kNotFound, {}}},
        {"a missing source, then a good one", Request().Source(Path("none")).Source(source).Product(kProduct0),
         {kSuccess, Lines({product0})}},
        {"no reachable source", Request().Source(Path("none")).Source("ftp://host/x"), {kNoSourceReachable, {}}},
        {"the empty repository", Request(), {kSuccess, {}}},
        {"a product the repository lacks", Request().Product(kProduct0), {kNotFound, {}}},
    };
    for (const auto& c : cases) {
        const Outcome outcome = Call(ZOVRELAY_GetInformation, context.handle, c.request);
        EXPECT_EQ(outcome.status, c.expected.status) << c.what;
        EXPECT_EQ(outcome.lines, c.expected.lines) << c.what;
    }

    // A repository lists every version it holds, newest first, from its merged archives only.
    ASSERT_EQ(ZOVRELAY_SetOption(context.handle, 10, 2), kSuccess);
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, kSuccess);
    Request old = Request().Source(source).Product(kProduct0, {Entity(kEngine, Version{1, 200, 1, 0})});
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, old).status, kSuccess);
    WriteFile(root / "repo/server.ini", "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
    EXPECT_EQ(Call(ZOVRELAY_GetInformation, context.handle, Request()).lines,
              Lines({std::string(kProduct0) + " 10.0.0.0: " + kEngine + "@2.200.1.0 " + kEngine + "@1.200.1.0 " + kPattern +
                     "@2.100.1.0 " + rule}));
}

TEST_F(Mirror, MirrorsIncrementallyAndKeepsAnExactIndex) {
    const std::string source = MakeSource("source", Small());
    const std::string repository = Path("repo");
    Context context(repository);
    Recorder recorder;
    recorder.SubscribeAll(context.handle);

    const Outcome first = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0));
    ASSERT_EQ(first.status, kSuccess);
    EXPECT_EQ(first.lines, Lines({std::string(kProduct0) + " 10.0.0.0: " + kPattern + "@1.100.1.0 " + kEngine +
                                  "@1.200.1.0 c22t2213l-1p-1r-1o-1@1.300.1.0"}));
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 3u);
    EXPECT_EQ(CheckRepository(repository), std::vector<std::string>());

    // Both products: only the second's components that the first lacked are new - none here.
    recorder.events.clear();
    const Outcome second = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0).Product(kProduct1));
    ASSERT_EQ(second.status, kSuccess);
    EXPECT_EQ(second.lines.size(), 2u);
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 0u);
    ASSERT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOAD), 1u);
    EXPECT_EQ(recorder.events[0].total, 0u) << "nothing was planned";

    // The index lists each held component and both products.
    const std::optional<Catalog> index = ParseCatalog(ReadFile(fs::path(repository) / "server.ini"));
    ASSERT_TRUE(index.has_value());
    EXPECT_EQ(index->components.size(), 3u);
    EXPECT_EQ(index->products.size(), 2u);
    EXPECT_EQ(index->components[0].path.rfind("packages/", 0), 0u);

    // A new release of the source: every component is downloaded again, the old version goes.
    MakeSource("source", Small(2));
    recorder.events.clear();
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product("c1t-1l-1p-1r-1o-1")).status, kNotFound);
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product("c1t101l-1p-1r-1o-1")).status, kSuccess);
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 3u);
    EXPECT_EQ(Call(ZOVRELAY_GetInformation, context.handle, Request().Product(kProduct1)).lines,
              Lines({std::string(kProduct1) + " 10.0.0.0: " + kEngine + "@1.200.2.0 " + kPattern +
                     "@1.100.2.0 c22t2213l-1p-1r-1o-1@1.300.2.0"}));
    EXPECT_EQ(CheckRepository(repository), std::vector<std::string>());
    EXPECT_EQ(Temporaries(repository), std::vector<std::string>());
}

TEST_F(Mirror, ProductsWithComponentsMirrorExactlyThose) {
    const std::string source = MakeSource("source", Small(1, 2));
    Context context(Path("repo"));
    const struct {
        const char* what;
        std::vector<ZOVRELAY_EntityItem> components;
        Outcome expected;
    } cases[] = {
        {"one component, newest", {Entity(kEngine)}, {kSuccess, Lines({std::string(kProduct0) + " 10.0.0.0: " + kEngine + "@2.200.1.0"})}},
        {"a named older version", {Entity(kPattern, {1, 100, 1, 0})},
         {kSuccess, Lines({std::string(kProduct0) + " 10.0.0.0: " + kPattern + "@1.100.1.0"})}},
        {"a component of another product", {Entity("c3t210l2p-1r-1o-1")}, {kNotFound, {}}},
        {"a version the source lacks", {Entity(kEngine, {3, 0, 0, 0})}, {kNotFound, {}}},
    };
    for (const auto& c : cases) {
        const Outcome outcome = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0, c.components));
        EXPECT_EQ(outcome.status, c.expected.status) << c.what;
        EXPECT_EQ(outcome.lines, c.expected.lines) << c.what;
    }
    // A request that fails is planned whole first: nothing of it was mirrored.
    EXPECT_EQ(Merged(Path("repo")), Lines({std::string(kEngine) + "_merged.zip", std::string(kPattern) + "_merged.zip"}));

    // Zero products mirror nothing, not everything, yet leave a valid index for the module's clean-up.
    fs::remove_all(Path("repo/packages"));
    fs::create_directory(Path("repo/packages"));
    for (const Request& request : {Request().Source(source), Request()}) {
        const Outcome none = Call(ZOVRELAY_Duplicate, context.handle, request);
        EXPECT_EQ(none.status, kSuccess);
        EXPECT_EQ(none.lines, std::vector<std::string>());
        EXPECT_TRUE(fs::is_empty(Path("repo/packages")));
        EXPECT_EQ(ReadFile(root / "repo/server.ini"), "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
    }
}

TEST_F(Mirror, EventsCarryTheirPayloads) {
    const std::string source = MakeSource("source", {1, 1, 200 * 1024, 1, 1});  // three full progress steps and a remainder
    const Component package = ParseCatalog(ReadFile(fs::path(source) / "server.ini"))->components.at(0);
    Context context(Path("repo"));
    Recorder recorder;
    recorder.SubscribeAll(context.handle);
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, kSuccess);

    std::vector<std::string> seen;
    for (const Event& e : recorder.events)
        seen.push_back(std::to_string(e.type) + " " + e.information + " " + std::to_string(e.total) + " " + std::to_string(e.finished));
    const std::string size = std::to_string(package.size);
    const std::string path = package.path;
    EXPECT_EQ(seen, Lines({"0 " + source + " " + size + " 0", "4 " + path + " " + size + " 0", "1 " + path + " " + size + " 65536",
                           "1 " + path + " " + size + " 131072", "1 " + path + " " + size + " 196608",
                           "1 " + path + " " + size + " " + size, "5 " + path + " " + size + " " + size}));
}

TEST_F(Mirror, AHandlerAnsweringZeroCancelsAndKeepsWhatWasComplete) {
    const std::string source = MakeSource("source", Small());
    const std::string repository = Path("repo");
    for (const ZOVRELAY_EventType type : {ZOVRELAY_EVENT_DOWNLOAD, ZOVRELAY_EVENT_DOWNLOADBEGIN, ZOVRELAY_EVENT_PROGRESS,
                                          ZOVRELAY_EVENT_DOWNLOADEND}) {
        fs::remove_all(repository);
        Context context(repository);
        Recorder recorder;
        recorder.SubscribeAll(context.handle);
        // Cancel at the second event of this type (the first, for "download").
        recorder.answer = [&](const Event& e) {
            return e.type == type && recorder.Count(type) == (type == ZOVRELAY_EVENT_DOWNLOAD ? 1u : 2u) ? 0 : 1;
        };
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, kCancelled) << type;
        EXPECT_EQ(recorder.events.back().type, type) << "events went on after the cancel";
        EXPECT_EQ(CheckRepository(repository), std::vector<std::string>()) << type;
        EXPECT_EQ(Temporaries(repository), std::vector<std::string>()) << type;
        // Each component is stored before the next one starts; one that had only been downloaded is not.
        const size_t complete = Merged(repository).size();
        EXPECT_EQ(complete, type == ZOVRELAY_EVENT_DOWNLOAD ? 0u : 1u) << type;
        // The next run completes the rest, downloading only what is missing.
        recorder.answer = [](const Event&) { return 1; };
        recorder.events.clear();
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, kSuccess);
        EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 3 - complete);
    }
}

TEST_F(Mirror, RetentionFollowsMaxmergeBuildpatchAndKeepcount) {
    const std::string source = MakeSource("source", Small(1, 3));
    const std::string engine = kEngine;
    const struct {
        const char* what;
        std::vector<std::pair<int, int64_t>> options;
        std::vector<std::string> packages;  // of the engine, after mirroring versions 1, 2 and 3 in turn
        size_t removals;
        bool oldKept;  // whether version 1, asked for again, is held
    } cases[] = {
        {"defaults: the newest only", {}, {engine + "_merged.zip"}, 0, false},
        {"maxmerge past 2^32, not its low half", {{10, (int64_t(1) << 32) + 1}}, {engine + "_merged.zip"}, 0, true},
        {"buildpatch without a limit", {{9, 1}, {10, 3}},
         {engine + "_1.200.1.0.zip", engine + "_2.200.1.0.zip", engine + "_3.200.1.0.zip", engine + "_merged.zip"}, 0, true},
        {"buildpatch with keepcount 2", {{9, 1}, {12, 2}},
         {engine + "_2.200.1.0.zip", engine + "_3.200.1.0.zip", engine + "_merged.zip"}, 1, false},
    };
    for (const auto& c : cases) {
        const std::string repository = Path("repo");
        fs::remove_all(repository);
        Context context(repository);
        Recorder recorder;
        recorder.SubscribeAll(context.handle);
        for (const auto& [option, value] : c.options) ASSERT_EQ(ZOVRELAY_SetOption(context.handle, option, value), kSuccess);
        for (unsigned long major = 1; major <= 3; ++major) {
            const Request request = Request().Source(source).Product(kProduct0, {Entity(kEngine, {major, 200, 1, 0})});
            ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, request).status, kSuccess) << c.what;
        }
        EXPECT_EQ(Merged(repository), c.packages) << c.what;
        EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_REMOVEBEGIN), c.removals) << c.what;
        EXPECT_EQ(CheckRepository(repository), std::vector<std::string>()) << c.what;
        // An older version than those kept is not downloaded just to be dropped.
        recorder.events.clear();
        const Request old = Request().Source(source).Product(kProduct0, {Entity(kEngine, {1, 200, 1, 0})});
        const Outcome outcome = Call(ZOVRELAY_Duplicate, context.handle, old);
        EXPECT_EQ(outcome.lines.at(0).find("@1.200.1.0") != std::string::npos, c.oldKept) << c.what;
        EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 0u) << c.what;
        EXPECT_EQ(Merged(repository), c.packages) << c.what;
    }
}

TEST_F(Mirror, TheBlacklistSkipsListedExtensions) {
    const std::string source = MakeSource("source", {1, 5, 2000, 1, 1});  // the fifth is a class 7 ".pkg" package
    const struct {
        int64_t enabled;
        const wchar_t* list;
        size_t mirrored;
    } cases[] = {
        {1, L"pkg", 4}, {1, L" .PKG , exe", 4}, {1, L"zip", 1}, {1, L"kg", 5}, {0, L"pkg,zip", 5}, {1, L"", 5}, {1, L"pkg,.zip", 0},
    };
    for (const auto& c : cases) {
        fs::remove_all(Path("repo"));
        Context context(Path("repo"));
        ASSERT_EQ(ZOVRELAY_SetStringOption(context.handle, 22, c.list), kSuccess);
        ASSERT_EQ(ZOVRELAY_SetOption(context.handle, 23, c.enabled), kSuccess);
        const Outcome outcome = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0));
        EXPECT_EQ(outcome.status, kSuccess);
        EXPECT_EQ(Merged(Path("repo")).size(), c.mirrored) << Narrow(c.list);
        EXPECT_EQ(std::count(outcome.lines.at(0).begin(), outcome.lines.at(0).end(), '@'), long(c.mirrored)) << Narrow(c.list);
    }
}

TEST_F(Mirror, ExportWritesTheNewestOrTheNamedVersion) {
    const std::string source = MakeSource("source", Small(1, 2));
    Context context(Path("repo"));
    ASSERT_EQ(ZOVRELAY_SetOption(context.handle, 10, 2), kSuccess);
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle,
                  Request().Source(source).Product(kProduct0, {Entity(kEngine, {1, 200, 1, 0}), Entity(kEngine)}))
                  .status,
              kSuccess);
    const std::string v1 = "engine/" + std::string(kEngine) + "-1.200.1.0.zip";
    const std::string v2 = "engine/" + std::string(kEngine) + "-2.200.1.0.zip";
    const struct {
        ZOVRELAY_EntityItem entity;
        const char* destination;
        ZOVRELAY_Status status;
        std::string package;
    } cases[] = {
        {Entity(kEngine), "out/new/deep", kSuccess, v2},
        {Entity(kEngine, {1, 200, 1, 0}), "out/one", kSuccess, v1},
        {Entity(kEngine, {1, 200, 1, 9}), "out/revision", kSuccess, v1},  // the revision is not compared
        {Entity(kEngine, {1, 201, 1, 0}), "out/none", kNotFound, ""},
        {Entity("c2t1207960066l1p-1r-1o-1"), "out/none", kNotFound, ""},
        {Entity(kPattern), "out/none", kNotFound, ""},
        {Entity(kEngine), "source/server.ini", kIoError, ""},  // a file where the directory should be
    };
    for (const auto& c : cases) {
        const std::string destination = Path(c.destination);
        EXPECT_EQ(ZOVRELAY_ExportComponent(context.handle, Wide(destination).c_str(), c.entity), c.status) << c.destination;
        if (c.status != kSuccess) continue;
        const fs::path written = fs::path(destination) / fs::path(c.package).filename();
        EXPECT_EQ(ReadFile(written), ReadFile(fs::path(source) / c.package)) << c.destination;
        EXPECT_EQ(std::distance(fs::directory_iterator(destination), fs::directory_iterator()), 1) << "a temporary stayed";
    }
    EXPECT_FALSE(fs::exists(Path("out/none")));
    EXPECT_EQ(ZOVRELAY_ExportComponent(context.handle, nullptr, Entity(kEngine)), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_ExportComponent(nullptr, Wide(Path("out")).c_str(), Entity(kEngine)), kInvalidArgument);
}

TEST_F(Mirror, OptionsAreCheckedAgainstTheirTable) {
    Context context(Path("repo"));
    const struct {
        int option;
        int64_t value;
        ZOVRELAY_Status status;
    } numbers[] = {
        {0, 100, kSuccess}, {0, -1, kSuccess}, {9, 1, kSuccess},  {10, 0, kSuccess},        {10, -1, kInvalidArgument},
        {11, 3, kSuccess},  {12, 2, kSuccess}, {12, -5, kInvalidArgument}, {15, 7, kSuccess}, {23, 1, kSuccess},
        {22, 1, kInvalidArgument}, {1, 0, kInvalidArgument}, {13, 0, kInvalidArgument}, {-1, 0, kInvalidArgument},
    };
    for (const auto& c : numbers) EXPECT_EQ(ZOVRELAY_SetOption(context.handle, c.option, c.value), c.status) << c.option;
    EXPECT_EQ(ZOVRELAY_SetStringOption(context.handle, 22, L"exe,dll"), kSuccess);
    EXPECT_EQ(ZOVRELAY_SetStringOption(context.handle, 0, L"1"), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_SetStringOption(context.handle, 22, nullptr), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_SetOption(nullptr, 0, 1), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_SubscribeEvent(context.handle, ZOVRELAY_EventType(6), &Recorder::Callback, nullptr), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_SubscribeEvent(context.handle, ZOVRELAY_EVENT_PROGRESS, nullptr, nullptr), kSuccess);
}

TEST_F(Mirror, BadInputFailsCleanlyAndLosesNothing) {
    const std::string good = MakeSource("good", Small());
    const std::string catalog = ReadFile(fs::path(good) / "server.ini");
    const Component first = ParseCatalog(catalog)->components.at(0);
    auto variant = [&](const std::string& name, const std::function<void(const fs::path&)>& change) {
        fs::copy(good, Path(name), fs::copy_options::recursive);
        change(Path(name));
        return Path(name);
    };
    auto replace = [&](std::string text, const std::string& from, const std::string& to) {
        return text.replace(text.find(from), from.size(), to);
    };
    const struct {
        const char* what;
        std::string source;
        ZOVRELAY_Status status;
    } cases[] = {
        {"a malformed line", variant("bad-line", [&](const fs::path& p) { WriteFile(p / "server.ini", catalog + "junk\n"); }), kInvalidCatalog},
        {"a path with ..", variant("dotdot", [&](const fs::path& p) {
             WriteFile(p / "server.ini", replace(catalog, first.path, "../" + first.path)); }), kInvalidCatalog},
        {"an absolute path", variant("absolute", [&](const fs::path& p) {
             WriteFile(p / "server.ini", replace(catalog, first.path, "/etc/passwd")); }), kInvalidCatalog},
        {"a catalog cut short", variant("cut", [&](const fs::path& p) {
             WriteFile(p / "server.ini", catalog.substr(0, catalog.size() - 30)); }), kInvalidCatalog},
        {"a truncated package", variant("truncated", [&](const fs::path& p) {
             fs::resize_file(p / first.path, first.size - 1); }), kIntegrityFailed},
        {"a corrupted package", variant("corrupted", [&](const fs::path& p) {
             std::string bytes = ReadFile(p / first.path);
             bytes[bytes.size() / 2] ^= 1;
             WriteFile(p / first.path, bytes); }), kIntegrityFailed},
        {"a longer package", variant("longer", [&](const fs::path& p) {
             WriteFile(p / first.path, ReadFile(p / first.path) + "x"); }), kIntegrityFailed},
        {"a missing package", variant("missing", [&](const fs::path& p) { fs::remove(p / first.path); }), kNoSourceReachable},
        {"no catalog", variant("empty", [&](const fs::path& p) { fs::remove(p / "server.ini"); }), kNoSourceReachable},
    };
    for (const auto& c : cases) {
        fs::remove_all(Path("repo"));
        Context context(Path("repo"));
        const Outcome outcome = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(c.source).Product(kProduct0));
        EXPECT_EQ(outcome.status, c.status) << c.what;
        EXPECT_FALSE(fs::exists(Path("repo/packages/" + FormatIdentity(first.identity) + "_merged.zip"))) << c.what;
        EXPECT_EQ(CheckRepository(Path("repo")), std::vector<std::string>()) << c.what;
        EXPECT_EQ(Temporaries(Path("repo")), std::vector<std::string>()) << c.what;
        // The other components of a source whose catalog was valid are mirrored all the same.
        EXPECT_EQ(Merged(Path("repo")).size(), c.status == kInvalidCatalog || c.source == Path("empty") ? 0u : 2u) << c.what;
    }

    // A spot in the repository that cannot be written (as root too): i/o error, the rest intact.
    fs::remove_all(Path("repo"));
    Context context(Path("repo"));
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(good).Product(kProduct0)).status, kSuccess);
    MakeSource("good", Small(2));
    const fs::path blocked = root / "repo/packages" / ("." + FormatIdentity(first.identity) + "_1.100.2.0.part");
    fs::create_directory(blocked);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(good).Product(kProduct0)).status, kIoError);
    EXPECT_EQ(CheckRepository(Path("repo")), std::vector<std::string>());
    EXPECT_EQ(Call(ZOVRELAY_GetInformation, context.handle, Request()).lines.at(0).find(FormatIdentity(first.identity) + "@1.100.1.0") !=
                  std::string::npos,
              true)
        << "the held version was lost";
    fs::remove(blocked);

    // Null pointers where the interface forbids them.
    ZOVRELAY_Information* information = nullptr;
    ZOVRELAY_Product product{Entity(kProduct0), nullptr, 1};
    const ZOVRELAY_Source nullSource{nullptr, {0, 0}, nullptr};
    EXPECT_EQ(ZOVRELAY_Duplicate(nullptr, nullptr, 0, nullptr, 0, &information), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_Duplicate(context.handle, nullptr, 0, nullptr, 0, nullptr), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_Duplicate(context.handle, nullptr, 1, nullptr, 0, &information), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_Duplicate(context.handle, &product, 1, nullptr, 0, &information), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_GetInformation(context.handle, nullptr, 0, nullptr, 2, &information), kInvalidArgument);
    EXPECT_EQ(ZOVRELAY_GetInformation(context.handle, nullptr, 0, &nullSource, 1, &information), kNoSourceReachable);
    EXPECT_EQ(information, nullptr);
    // A record is freed once; a second release, or a pointer not ours, is refused.
    ASSERT_EQ(ZOVRELAY_GetInformation(context.handle, nullptr, 0, nullptr, 0, &information), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyData(information), kSuccess);
    EXPECT_EQ(ZOVRELAY_DestroyData(information), kInvalidArgument);
    ZOVRELAY_Information foreign{nullptr, 0};
    EXPECT_EQ(ZOVRELAY_DestroyData(&foreign), kInvalidArgument);
}

TEST_F(Mirror, HandlersMayCallTheLibraryAgain) {
    const std::string source = MakeSource("source", Small());
    Context context(Path("repo"));
    Recorder recorder;
    recorder.SubscribeAll(context.handle);
    std::vector<ZOVRELAY_Status> inner;
    recorder.answer = [&](const Event& e) {
        if (e.type != ZOVRELAY_EVENT_DOWNLOADBEGIN) return 1;
        Context same(Path("repo"));
        inner.push_back(same.status);
        Context other(Path("other"));
        inner.push_back(Call(ZOVRELAY_Duplicate, other.handle, Request().Source(source).Product(kProduct1)).status);
        ZOVRELAY_Information* information = nullptr;
        inner.push_back(ZOVRELAY_GetInformation(context.handle, nullptr, 0, nullptr, 0, &information));
        return 1;
    };
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, kSuccess);
    ASSERT_EQ(inner.size(), 9u);
    for (size_t i = 0; i < inner.size(); i += 3) {
        EXPECT_EQ(inner[i], kRepositoryBusy);
        EXPECT_EQ(inner[i + 1], kSuccess);
        EXPECT_EQ(inner[i + 2], kRepositoryBusy) << "a second operation on the running context";
    }
    EXPECT_EQ(CheckRepository(Path("repo")), std::vector<std::string>());
    EXPECT_EQ(CheckRepository(Path("other")), std::vector<std::string>());

    // Destroying the running context from its own handler is carried out when the call returns.
    ZOVRELAY_Context* doomed = nullptr;
    ASSERT_EQ(ZOVRELAY_CreateContext(&doomed, Wide(Path("doomed")).c_str()), kSuccess);
    Recorder destroyer;
    destroyer.answer = [&](const Event& e) { return e.type == ZOVRELAY_EVENT_DOWNLOAD ? ZOVRELAY_DestroyContext(doomed) : 1; };
    destroyer.SubscribeAll(doomed);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, doomed, Request().Source(source).Product(kProduct0)).status, kSuccess);
    EXPECT_EQ(Context(Path("doomed")).status, kSuccess) << "the context was not released";
}

}  // namespace
}  // namespace relaytest
