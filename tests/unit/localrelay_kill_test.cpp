// A mirror killed (SIGKILL) inside any event of a run leaves a repository whose every archive opens
// and verifies, and the next context removes what the run left. Children run the mirror; the
// parent checks. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relaytest {
namespace {

class Kill : public RelayTest {
protected:
    // buildpatch, maxmerge 2 and keepcount 1: a run replaces versions, copies old ones, writes
    // per-version archives and prunes them.
    static void Configure(ZOVRELAY_Context* context) {
        for (const auto& [option, value] : {std::pair<int, int64_t>{9, 1}, {10, 2}, {12, 1}}) ZOVRELAY_SetOption(context, option, value);
    }
    Outcome Mirror(ZOVRELAY_Context* context) {
        Configure(context);
        return Call(ZOVRELAY_Duplicate, context, Request().Source(Path("source")).Product(kProduct0).Product(kProduct1));
    }
    // "base" holds release 1 of a source of five components (100 KiB each: two progress events);
    // the source is then at release 2.
    void SetUp() override {
        RelayTest::SetUp();
        MakeSource("source", 1, 1, 4, 100 * 1024);
        ASSERT_EQ(Mirror(Context(Path("base")).handle).status, kSuccess);
        MakeSource("source", 2, 1, 4, 100 * 1024);
    }
    // A copy of "base" at `name`.
    std::string Fresh(const std::string& name) {
        fs::remove_all(Path(name));
        fs::copy(Path("base"), Path(name), fs::copy_options::recursive);
        return Path(name);
    }
    // Runs the mirror on a fresh copy in a child, which kills itself inside event `killAt`.
    pid_t Start(size_t killAt) {
        const std::string repository = Fresh("run");
        const pid_t child = fork();
        if (child != 0) return child;
        Context context(repository);
        Recorder recorder(context.handle);
        recorder.answer = [&](const Event&) { if (recorder.events.size() == killAt) raise(SIGKILL); return 1; };
        _exit(Mirror(context.handle).status == kSuccess ? 0 : 3);
    }
    // What must hold after a kill, once the next context opened, and after its complete run.
    void Verify(const std::string& when) {
        const fs::path repository = Path("run");
        EXPECT_EQ(CheckRepository(repository, true), Lines()) << when;
        Context next(repository);
        EXPECT_EQ(CheckRepository(repository), Lines()) << when << ", once the next context opened";
        EXPECT_EQ(Mirror(next.handle).status, kSuccess) << when;
        EXPECT_EQ(CheckRepository(repository), Lines()) << when;
        EXPECT_EQ(Held(next.handle), complete) << when;
    }

    Lines complete;  // the repository's listing after an uninterrupted run
};

TEST_F(Kill, InsideEveryEventOfARun) {
    Context reference(Fresh("reference"));
    Recorder recorder(reference.handle);
    ASSERT_EQ(Mirror(reference.handle).status, kSuccess);
    ASSERT_GT(recorder.Count(ZOVRELAY_EVENT_REMOVEBEGIN), 0u);
    complete = Held(reference.handle);

    for (size_t n = 1; n <= recorder.events.size(); ++n) {
        int status = 0;
        const pid_t child = Start(n);
        ASSERT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "event " << n << ": not killed";
        Verify("killed in event " + std::to_string(n));
    }
}

TEST_F(Kill, TheNextContextRemovesStaleTemporaries) {
    const fs::path packages = root / "repo/packages";
    const Lines stale = {".c3t4l1p-1r-1o-1_1.0.0.0.part", ".c3t4l1p-1r-1o-1_merged.tmp", ".c3t4l1p-1r-1o-1_merged.tmp.Ab3dE9"};
    const Lines kept = {".keep", "notes.txt", "x.zip.part", ".tmp"};
    for (const std::string& name : stale) WriteFile(packages / name, "partial");
    for (const std::string& name : kept) WriteFile(packages / name, "mine");
    WriteFile(root / "repo/.server.ini.tmp", "[PATTERN]\n");
    WriteFile(packages / ".d.part/x", "not ours");  // a full directory: left alone
    ASSERT_EQ(Context(Path("repo")).status, kSuccess);
    for (const std::string& name : stale) EXPECT_FALSE(fs::exists(packages / name)) << name;
    for (const std::string& name : kept) EXPECT_TRUE(fs::exists(packages / name)) << name;
    EXPECT_FALSE(fs::exists(root / "repo/.server.ini.tmp"));
    EXPECT_TRUE(fs::is_directory(packages / ".d.part"));
}

}  // namespace
}  // namespace relaytest
