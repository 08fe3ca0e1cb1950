// A mirror killed (SIGKILL) at any instant leaves a repository whose every archive opens and
// verifies, and the next context removes what the run left. Children run the mirror; the parent
// checks. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace relaytest {
namespace {

class Kill : public RelayTest {
protected:
    // Two products with five components between them, in two releases, so that a run replaces
    // versions, copies old ones, writes per-version archives and prunes them.
    sourcemaker::Shape Shape(uint64_t seed, uint64_t size) {
        sourcemaker::Shape shape;
        shape.products = 2;
        shape.components = 4;
        shape.size = size;
        shape.seed = seed;
        return shape;
    }
    static void Configure(ZOVRELAY_Context* context) {
        ZOVRELAY_SetOption(context, 9, 1);   // buildpatch
        ZOVRELAY_SetOption(context, 10, 2);  // maxmerge
        ZOVRELAY_SetOption(context, 12, 1);  // keepcount: every run prunes
    }
    static Request Everything(const std::string& source) {
        return Request().Source(source).Product("c1t100l1p-1r-1o-1").Product("c1t101l1p-1r-1o-1");
    }

    // The repository after release 1, and the source at release 2. Remembers every package the
    // source ever offered, to check per-version archives against.
    void Prepare(uint64_t size) {
        source = MakeSource("source", Shape(1, size));
        Remember();
        {
            Context context(Path("base"));
            Configure(context.handle);
            ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Everything(source)).status, kSuccess);
        }
        MakeSource("source", Shape(2, size));
        Remember();
    }
    void Remember() {
        const std::optional<Catalog> catalog = ParseCatalog(ReadFile(fs::path(source) / "server.ini"));
        for (const Component& c : catalog->components)
            offered[FormatIdentity(c.identity) + "_" + FormatVersion(c.version) + ".zip"] = c.sha256;
    }
    std::string Fresh(const std::string& name) {
        fs::remove_all(Path(name));
        fs::copy(Path("base"), Path(name), fs::copy_options::recursive);
        return Path(name);
    }

    // Runs the mirror in a child; `during` is called with each event and may kill the child.
    pid_t Start(const std::string& repository, std::function<void(size_t)> during) {
        const pid_t child = fork();
        if (child != 0) return child;
        ZOVRELAY_Startup(nullptr);
        ZOVRELAY_Context* context = nullptr;
        if (ZOVRELAY_CreateContext(&context, Wide(repository).c_str()) <= 0) _exit(2);
        Configure(context);
        Recorder recorder;
        recorder.answer = [&](const Event&) {
            during(recorder.events.size());
            return 1;
        };
        recorder.SubscribeAll(context);
        Request request = Everything(source);
        request.Prepare();
        ZOVRELAY_Information* information = nullptr;
        const ZOVRELAY_Status status = ZOVRELAY_Duplicate(context, request.products.data(), request.products.size(),
                                                          request.sources.data(), request.sources.size(), &information);
        _exit(status == kSuccess ? 0 : 3);
    }

    // What must hold after any kill, and after the next complete run.
    void Verify(const std::string& repository, const std::string& when) {
        EXPECT_EQ(CheckRepository(repository), std::vector<std::string>()) << when;
        for (const auto& entry : fs::directory_iterator(fs::path(repository) / "packages")) {
            const std::string name = entry.path().filename().string();
            if (name.find("_merged.zip") != std::string::npos || name[0] == '.') continue;
            EXPECT_EQ(Sha256(ReadFile(entry.path())), offered[name]) << when << ": " << name << " is not a package the source offered";
        }
        Context next(repository);
        ASSERT_EQ(next.status, kSuccess) << when;
        EXPECT_EQ(Temporaries(repository), std::vector<std::string>()) << when;
        Configure(next.handle);
        const Outcome finished = Call(ZOVRELAY_Duplicate, next.handle, Everything(source));
        EXPECT_EQ(finished.status, kSuccess) << when;
        EXPECT_EQ(CheckRepository(repository), std::vector<std::string>()) << when;
        EXPECT_EQ(Call(ZOVRELAY_GetInformation, next.handle, Request()).lines, complete) << when;
    }

    std::string source;
    std::map<std::string, std::string> offered;
    std::vector<std::string> complete;  // the repository's listing after an uninterrupted run
};

TEST_F(Kill, AtEveryEventOfARun) {
    Prepare(100 * 1024);  // two progress events per package
    size_t events = 0;
    {
        const std::string reference = Fresh("reference");
        Context context(reference);
        Configure(context.handle);
        Recorder recorder;
        recorder.SubscribeAll(context.handle);
        ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Everything(source)).status, kSuccess);
        events = recorder.events.size();
        ASSERT_GT(recorder.Count(ZOVRELAY_EVENT_REMOVEBEGIN), 0u);
        complete = Call(ZOVRELAY_GetInformation, context.handle, Request()).lines;
    }
    for (size_t n = 1; n <= events; ++n) {
        const std::string repository = Fresh("run");
        const pid_t child = Start(repository, [n](size_t seen) {
            if (seen == n) raise(SIGKILL);
        });
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "event " << n << ": the child was not killed";
        Verify(repository, "killed in event " + std::to_string(n));
    }
}

TEST_F(Kill, AtArbitraryInstants) {
    Prepare(256 * 1024);  // larger, so that kills also land inside archive writes
    const std::string reference = Fresh("reference");
    const auto start = std::chrono::steady_clock::now();
    {
        Context context(reference);
        Configure(context.handle);
        ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Everything(source)).status, kSuccess);
        complete = Call(ZOVRELAY_GetInformation, context.handle, Request()).lines;
    }
    const auto duration = std::chrono::steady_clock::now() - start;
    for (int step = 0; step < 11; ++step) {
        const std::string repository = Fresh("run");
        const pid_t child = Start(repository, [](size_t) {});
        std::this_thread::sleep_for(duration * step / 10);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        Verify(repository, "killed after " + std::to_string(step) + "/10 of a run");
    }
}

TEST_F(Kill, TheNextContextRemovesStaleTemporaries) {
    const fs::path packages = root / "repo/packages";
    const std::vector<std::string> stale = {".c3t4l1p-1r-1o-1_1.0.0.0.part", ".c3t4l1p-1r-1o-1_merged.tmp",
                                            ".c3t4l1p-1r-1o-1_merged.tmp.Ab3dE9"};
    const std::vector<std::string> kept = {".keep", "notes.txt", "x.zip.part", ".tmp"};
    for (const std::string& name : stale) WriteFile(packages / name, "partial");
    for (const std::string& name : kept) WriteFile(packages / name, "mine");
    WriteFile(root / "repo/.server.ini.tmp", "[PATTERN]\n");
    fs::create_directory(packages / ".d.part");  // not a file of ours: left alone
    {
        Context context(Path("repo"));
        ASSERT_EQ(context.status, kSuccess);
    }
    for (const std::string& name : stale) EXPECT_FALSE(fs::exists(packages / name)) << name;
    for (const std::string& name : kept) EXPECT_TRUE(fs::exists(packages / name)) << name;
    EXPECT_FALSE(fs::exists(root / "repo/.server.ini.tmp"));
    EXPECT_TRUE(fs::is_directory(packages / ".d.part"));
}

}  // namespace
}  // namespace relaytest
