// Listing, mirroring, retention, the blacklist, events, cancellation and export through the C
// interface, with sources made by the sample-source maker. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"

namespace relaytest {
namespace {

using Mirror = RelayTest;

// "<product> 10.0.0.0: <component>@<version> ...", as Call describes a product of a record.
std::string Listed(const std::string& product, const Lines& components) {
    std::string line = product + " 10.0.0.0:";
    for (const std::string& component : components) line += " " + component;
    return line;
}
std::string At(const std::string& identity, const std::string& version) { return identity + "@" + version; }

TEST_F(Mirror, ListsASourceOrARepositoryAndExportsWhatItHolds) {
    const std::string source = MakeSource("source", 1, 2);
    Context context(Path("repo"));
    const std::string pattern = At(kPattern, "2.100.1.0"), engine = At(kEngine, "2.200.1.0"), rule = At(kRule, "2.300.1.0");
    const std::string product0 = Listed(kProduct0, {pattern, engine, rule}), product1 = Listed(kProduct1, {pattern, engine, rule});
    const struct { const char* what; Request request; Outcome expected; } cases[] = {
        {"every product, newest versions only", Request().Source(source), {kSuccess, {product0, product1}}},
        {"wildcards in the request", Request().Source(source).Product("c1t100l-1p-1r-1o-1"), {kSuccess, {product0}}},
        {"an address ending in /", Request().Source(source + "/").Product(kProduct0), {kSuccess, {product0}}},
        {"a language that is not listed", Request().Source(source).Product("c1t100l2p-1r-1o-1"), {kNotFound, {}}},
        {"a version equal but for the revision", Request().Source(source).Product(kProduct0, {}, {10, 0, 0, 7}), {kSuccess, {product0}}},
        {"another build", Request().Source(source).Product(kProduct0, {}, {10, 0, 1, 0}), {kNotFound, {}}},
        {"a missing source, then a good one", Request().Source(Path("none")).Source(source).Product(kProduct0), {kSuccess, {product0}}},
        {"no reachable source", Request().Source(Path("none")).Source("ftp://host/x"), {kNoSourceReachable, {}}},
        {"a product the repository lacks", Request().Product(kProduct0), {kNotFound, {}}},
    };
    for (const auto& c : cases) EXPECT_EQ(Call(ZOVRELAY_GetInformation, context.handle, c.request), c.expected) << c.what;

    // A repository lists every version it holds, newest first, from its merged archives only.
    ASSERT_EQ(ZOVRELAY_SetOption(context.handle, 10, 2), kSuccess);
    const Request both = Request().Source(source).Product(kProduct0).Product(kProduct0, {Entity(kEngine, {1, 200, 1, 0})});
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, both).status, kSuccess);
    WriteFile(root / "repo/server.ini", "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
    // Older catalog versions come along with the newest, up to maxmerge.
    EXPECT_EQ(Held(context.handle), Lines({Listed(kProduct0, {engine, At(kEngine, "1.200.1.0"), pattern, At(kPattern, "1.100.1.0"),
                                                              rule, At(kRule, "1.300.1.0")})}));

    // Export looks the identity up exactly and writes the newest held version the request names.
    const std::string v1 = "engine/" + std::string(kEngine) + "-1.200.1.0.zip", v2 = "engine/" + std::string(kEngine) + "-2.200.1.0.zip";
    const struct { ZOVRELAY_EntityItem entity; const char* destination; ZOVRELAY_Status status; std::string package; } exports[] = {
        {Entity(kEngine), "out/new/deep", kSuccess, v2},
        {Entity(kEngine, {1, 200, 1, 0}), "out/one", kSuccess, v1},
        {Entity(kEngine, {1, 200, 1, 9}), "out/revision", kSuccess, v1},  // the revision is not compared
        {Entity(kEngine, {1, 201, 1, 0}), "out/none", kNotFound, ""},
        {Entity("c2t1207960066l1p-1r-1o-1"), "out/none", kNotFound, ""},
        {Entity(kEngine), "source/server.ini", kIoError, ""},  // a file where the directory should be
    };
    for (const auto& c : exports) {
        const std::string destination = Path(c.destination);
        EXPECT_EQ(ZOVRELAY_ExportComponent(context.handle, Wide(destination).c_str(), c.entity), c.status) << c.destination;
        if (c.status != kSuccess) continue;
        EXPECT_EQ(ReadFile(fs::path(destination) / fs::path(c.package).filename()), ReadFile(fs::path(source) / c.package)) << c.destination;
        EXPECT_EQ(std::distance(fs::directory_iterator(destination), fs::directory_iterator()), 1) << "a temporary stayed";
    }
    EXPECT_FALSE(fs::exists(Path("out/none")));
}

TEST_F(Mirror, MirrorsIncrementallyAndKeepsAnIndex) {
    const std::string source = MakeSource("source");
    Context context(Path("repo"));
    Recorder recorder(context.handle);
    std::vector<ZOVRELAY_Status> inner;  // from handlers: another context on the repository, another operation on the context
    recorder.answer = [&](const Event& e) {
        if (e.type == ZOVRELAY_EVENT_DOWNLOADBEGIN)
            inner.insert(inner.end(), {Context(Path("repo")).status, Call(ZOVRELAY_GetInformation, context.handle, Request()).status});
        return 1;
    };
    const Lines release1 = {At(kPattern, "1.100.1.0"), At(kEngine, "1.200.1.0"), At(kRule, "1.300.1.0")};
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)), (Outcome{kSuccess, {Listed(kProduct0, release1)}}));
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 3u);
    EXPECT_EQ(inner, std::vector<ZOVRELAY_Status>({kSuccess, kRepositoryBusy, kSuccess, kRepositoryBusy, kSuccess, kRepositoryBusy}));

    // Both products: the second shares every component with the first, so nothing is downloaded.
    recorder.events.clear();
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0).Product(kProduct1)).lines.size(), 2u);
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 0u);
    ASSERT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOAD), 1u);
    EXPECT_EQ(recorder.events[0].total, 0u) << "nothing was planned";
    const Catalog index = ParseCatalog(ReadFile(root / "repo/source.ini")).value_or(Catalog{});
    EXPECT_TRUE(index.components.size() == 3 && index.products.size() == 2) << ReadFile(root / "repo/source.ini");

    // A new release of the source: every component is downloaded again, the old version goes.
    MakeSource("source", 2);
    recorder.events.clear();
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product("c1t-1l-1p-1r-1o-1")).status, kNotFound);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product("c1t101l-1p-1r-1o-1")).status, kSuccess);
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 3u);
    const Lines release2 = {At(kEngine, "1.200.2.0"), At(kPattern, "1.100.2.0"), At(kRule, "1.300.2.0")};
    EXPECT_EQ(Held(context.handle), Lines({Listed(kProduct0, release2), Listed(kProduct1, release2)}));
    EXPECT_EQ(CheckRepository(Path("repo")), Lines());
}

TEST_F(Mirror, ProductsWithComponentsMirrorExactlyThose) {
    const std::string source = MakeSource("source", 1, 2, 4);  // the fourth component is each product's own
    Context context(Path("repo"));
    const std::string engine = At(kEngine, "2.200.1.0"), pattern = At(kPattern, "1.100.1.0");
    const struct { const char* what; std::vector<ZOVRELAY_EntityItem> components; Outcome expected; } cases[] = {
        {"one component, newest", {Entity(kEngine)}, {kSuccess, {Listed(kProduct0, {engine})}}},
        {"a named older version", {Entity(kPattern, {1, 100, 1, 0})}, {kSuccess, {Listed(kProduct0, {pattern})}}},
        {"a component of another product", {Entity("c3t210l2p-1r-1o-1")}, {kNotFound, {}}},
        {"a version the source lacks, after one it has", {Entity(kRule), Entity(kEngine, {3, 0, 0, 0})}, {kNotFound, {}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0, c.components)), c.expected) << c.what;
    EXPECT_EQ(Held(context.handle), Lines({Listed(kProduct0, {engine, pattern})})) << "a refused request mirrored something";

    // Zero products mirror nothing, not everything, yet leave a valid index for the module's clean-up.
    Context empty(Path("empty"));
    for (const Request& request : {Request().Source(source), Request()}) {
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, empty.handle, request), (Outcome{kSuccess, {}}));
        EXPECT_EQ(Held(empty.handle), Lines());
        EXPECT_EQ(ReadFile(root / "empty/server.ini"), "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
    }
}

TEST_F(Mirror, EventsCarryTheirPayloadsAndAZeroAnswerCancels) {
    const std::string source = MakeSource("source", 1, 1, 3, 100 * 1024);  // one progress step and a remainder each
    const Catalog catalog = *ParseCatalog(ReadFile(fs::path(source) / "server.ini"));
    Lines expected;  // type, information, total and finished of each event of a run
    uint64_t planned = 0;
    for (const Identity& identity : catalog.products.at(0).components)
        for (const Component& c : catalog.components) {
            if (c.identity != identity) continue;
            const std::string head = c.path + " " + std::to_string(c.size) + " ", size = std::to_string(c.size);
            expected.insert(expected.end(), {"4 " + head + "0", "1 " + head + "65536", "1 " + head + size, "5 " + head + size});
            planned += c.size;
        }
    expected.insert(expected.begin(), "0 " + source + " " + std::to_string(planned) + " 0");

    // Answering 0 to the nth event of a type (0: never) stops the run there, keeping each package
    // stored before: one is stored before the next one starts.
    const struct { ZOVRELAY_EventType type; size_t nth, stored; } cases[] = {
        {ZOVRELAY_EVENT_DOWNLOAD, 0, 3}, {ZOVRELAY_EVENT_DOWNLOAD, 1, 0}, {ZOVRELAY_EVENT_DOWNLOADBEGIN, 2, 1},
        {ZOVRELAY_EVENT_PROGRESS, 1, 0}, {ZOVRELAY_EVENT_PROGRESS, 4, 1}, {ZOVRELAY_EVENT_DOWNLOADEND, 2, 1},
    };
    for (const auto& c : cases) {
        const std::string repository = Path("repo" + std::to_string(&c - cases)), what = std::to_string(c.type) + "#" + std::to_string(c.nth);
        Context context(repository);
        Recorder recorder(context.handle);
        recorder.answer = [&](const Event& e) { return e.type == c.type && recorder.Count(c.type) == c.nth ? 0 : 1; };
        const ZOVRELAY_Status status = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status;
        EXPECT_EQ(status, c.nth == 0 ? kSuccess : kCancelled) << what;
        Lines seen;
        for (const Event& e : recorder.events)
            seen.push_back(std::to_string(e.type) + " " + e.information + " " + std::to_string(e.total) + " " + std::to_string(e.finished));
        ASSERT_LE(seen.size(), expected.size()) << what;
        EXPECT_EQ(seen, c.nth == 0 ? expected : Lines(expected.begin(), expected.begin() + seen.size())) << what;
        EXPECT_TRUE(c.nth == 0 || recorder.Count(c.type) == c.nth) << what << ": events went on after the cancel";
        EXPECT_EQ(CheckRepository(repository), Lines()) << what;
        EXPECT_EQ(Versions(Held(context.handle)), c.stored) << what;
    }
}

TEST_F(Mirror, RetentionFollowsMaxmergeBuildpatchAndKeepcount) {
    const std::string source = MakeSource("source", 1, 3);
    const struct {
        const char* what;
        std::vector<std::pair<int, int64_t>> options;
        std::vector<int> held, archives;  // engine versions (majors) after mirroring 1, 2 and 3 in turn
        size_t removals;
    } cases[] = {
        {"defaults: the newest only", {}, {3}, {}, 0},
        {"maxmerge 2", {{10, 2}}, {3, 2}, {}, 0},
        {"maxmerge past 2^32, not its low half", {{10, (int64_t(1) << 32) + 1}}, {3, 2, 1}, {}, 0},
        {"buildpatch without a limit", {{9, 1}, {10, 3}}, {3, 2, 1}, {1, 2, 3}, 0},
        {"buildpatch with keepcount 2", {{9, 1}, {12, 2}}, {3}, {2, 3}, 1},
    };
    auto version = [](int major) { return std::to_string(major) + ".200.1.0"; };
    for (const auto& c : cases) {
        const std::string repository = Path("repo" + std::to_string(&c - cases));
        Context context(repository);
        Recorder recorder(context.handle);
        for (const auto& [option, value] : c.options) ASSERT_EQ(ZOVRELAY_SetOption(context.handle, option, value), kSuccess);
        auto mirror = [&](int major) {
            return Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0, {Entity(kEngine, *ParseVersion(version(major)))}));
        };
        for (int major = 1; major <= 3; ++major) ASSERT_EQ(mirror(major).status, kSuccess) << c.what;
        Lines held;
        for (int major : c.held) held.push_back(At(kEngine, version(major)));
        EXPECT_EQ(Held(context.handle), Lines({Listed(kProduct0, held)})) << c.what;
        EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_REMOVEBEGIN), c.removals) << c.what;
        for (int major = 1; major <= 3; ++major)
            EXPECT_EQ(fs::exists(repository + "/packages/" + kEngine + "_" + version(major) + ".zip"),
                      std::count(c.archives.begin(), c.archives.end(), major) == 1) << c.what << ": version " << major;
        EXPECT_EQ(CheckRepository(repository), Lines()) << c.what;

        // Version 1 again: held still, or older than those kept and not downloaded just to be dropped.
        const size_t downloads = recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN);
        EXPECT_EQ(mirror(1).lines, Lines({Listed(kProduct0, c.held.back() == 1 ? Lines{At(kEngine, version(1))} : Lines{})})) << c.what;
        EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), downloads) << c.what;
        EXPECT_EQ(Held(context.handle), Lines({Listed(kProduct0, held)})) << c.what;
    }
}

TEST_F(Mirror, TheBlacklistSkipsListedExtensions) {
    const std::string source = MakeSource("source", 1, 1, 5);  // the fifth component is a class 7 ".pkg" package
    const struct { int64_t enabled; const wchar_t* list; size_t mirrored; } cases[] = {
        {1, L"pkg", 4}, {1, L" .PKG , exe", 4}, {1, L"zip", 1}, {1, L"kg", 5}, {0, L"pkg,zip", 5}, {1, L"", 5}, {1, L"pkg,.zip", 0},
    };
    for (const auto& c : cases) {
        Context context(Path("repo" + std::to_string(&c - cases)));
        ASSERT_EQ(ZOVRELAY_SetStringOption(context.handle, 22, c.list), kSuccess);
        ASSERT_EQ(ZOVRELAY_SetOption(context.handle, 23, c.enabled), kSuccess);
        const Outcome outcome = Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0));
        EXPECT_EQ(outcome.status, kSuccess) << Narrow(c.list);
        EXPECT_EQ(Versions(outcome.lines), c.mirrored) << Narrow(c.list);
        EXPECT_EQ(Versions(Held(context.handle)), c.mirrored) << Narrow(c.list);
    }
}

TEST_F(Mirror, BadInputFailsCleanlyAndLosesNothing) {
    const std::string good = MakeSource("good"), catalog = ReadFile(Path("good/server.ini"));
    const Component first = ParseCatalog(catalog)->components.at(0);
    const std::string package = ReadFile(fs::path(good) / first.path), sized = first.path + " " + std::to_string(first.size);
    std::string corrupted = package;
    corrupted[corrupted.size() / 2] ^= 1;
    auto edited = [&](const std::string& from, const std::string& to) { return std::string(catalog).replace(catalog.find(from), from.size(), to); };
    // Each case rewrites a file of the source, or removes it.
    const struct { const char* what; std::string file; std::optional<std::string> bytes; ZOVRELAY_Status status; size_t others; } cases[] = {
        {"a malformed line", "server.ini", edited(first.path, first.path + " junk"), kInvalidCatalog, 0},
        {"a path with ..", "server.ini", edited(first.path, "../" + first.path), kInvalidCatalog, 0},
        {"an absolute path", "server.ini", edited(first.path, "/etc/passwd"), kInvalidCatalog, 0},
        {"a catalog cut short", "server.ini", catalog.substr(0, catalog.size() - 30), kInvalidCatalog, 0},
        {"no catalog", "server.ini", std::nullopt, kNoSourceReachable, 0},
        {"a truncated package", first.path, package.substr(0, package.size() - 1), kIntegrityFailed, 2},
        {"a corrupted package", first.path, corrupted, kIntegrityFailed, 2},
        {"a longer package", first.path, package + "x", kIntegrityFailed, 2},
        {"a size the catalog overstates", "server.ini", edited(sized, first.path + " " + std::to_string(first.size + 1)), kIntegrityFailed, 2},
        {"a missing package", first.path, std::nullopt, kNoSourceReachable, 2},
    };
    for (const auto& c : cases) {
        const std::string source = Path("source" + std::to_string(&c - cases)), repository = Path("repo" + std::to_string(&c - cases));
        fs::copy(good, source, fs::copy_options::recursive);
        c.bytes ? WriteFile(source + "/" + c.file, *c.bytes) : void(fs::remove(source + "/" + c.file));
        Context context(repository);
        Recorder recorder(context.handle);
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(source).Product(kProduct0)).status, c.status) << c.what;
        EXPECT_EQ(CheckRepository(repository), Lines()) << c.what;
        // Nothing of the bad package passed its checks or was stored; the other components of a
        // source whose catalog was valid are mirrored all the same.
        for (const Event& e : recorder.events) EXPECT_FALSE(e.type == ZOVRELAY_EVENT_DOWNLOADEND && e.information == first.path) << c.what;
        const Lines held = Held(context.handle);
        EXPECT_EQ(Versions(held), c.others) << c.what;
        EXPECT_TRUE(held.empty() || held[0].find(FormatIdentity(first.identity)) == std::string::npos) << c.what;
    }
}

// Destroying the running context from its own handler is carried out when the call returns.
TEST_F(Mirror, AHandlerMayDestroyTheRunningContext) {
    const std::string source = MakeSource("source");
    ZOVRELAY_Context* doomed = nullptr;
    ASSERT_EQ(ZOVRELAY_CreateContext(&doomed, Wide(Path("repo")).c_str()), kSuccess);
    Recorder destroyer(doomed);
    destroyer.answer = [&](const Event& e) { return e.type == ZOVRELAY_EVENT_DOWNLOAD ? ZOVRELAY_DestroyContext(doomed) : 1; };
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, doomed, Request().Source(source).Product(kProduct0)).status, kSuccess);
    EXPECT_EQ(destroyer.Count(ZOVRELAY_EVENT_DOWNLOADEND), 3u);
    EXPECT_EQ(Context(Path("repo")).status, kSuccess) << "the context was not released";
    EXPECT_EQ(CheckRepository(Path("repo")), Lines());
}

}  // namespace
}  // namespace relaytest
