// Whatever is planted inside a repository, the relay writes and removes nothing outside it: links,
// hard links and directories under the names it uses, a packages/ that is a link, the repository
// itself swapped for a link during a run. Each case checks a sentinel file's bytes and the outside
// directory's listing. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"
#include "api/extensions.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <set>

namespace relaytest {
namespace {

class Safety : public RelayTest {
protected:
    void SetUp() override {
        RelayTest::SetUp();
        source = MakeSource("source");
        WriteFile(root / "outside/sentinel.zip", "sentinel");
        WriteFile(root / "outside/.hidden.part", "hidden");
    }
    std::set<std::string> Outside() const {  // every path there, with its bytes
        std::set<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(root / "outside"))
            found.insert(entry.path().string() + "=" + (entry.is_regular_file() ? ReadFile(entry.path()) : "dir"));
        return found;
    }
    Outcome Mirror(ZOVRELAY_Context* context) {
        return Call(ZOVRELAY_Duplicate, context, Request().Source(source).Product(kProduct0));
    }
    std::string source;
};

TEST_F(Safety, PlantedNamesNeverReachOutside) {
    const std::string part = "packages/." + std::string(kPattern) + "_1.100.1.0.part";
    const std::string sentinel = (root / "outside/sentinel.zip").string();
    const std::string archive = "packages/" + std::string(kPattern) + "_merged.zip";
    constexpr unsigned kAny = ~0u;
    const struct {
        const char* what;
        std::function<void(const fs::path&)> plant;
        ZOVRELAY_Status status;
        unsigned held = 3;        // versions held after the run (kAny: those stored before it stopped)
        bool buildPatch = true;   // per-version archives are written too; without, new archives are
                                  // written on the store's thread
        const char* named = "";   // in the failure's message
    } cases[] = {
        {"links as the index, the source catalog, the lock and the record", [&](const fs::path& r) {
             for (const char* name : {"server.ini", "source.ini", ".lock", ".verified", ".held", ".server.ini.tmp"}) fs::create_symlink(sentinel, r / name);
         }, kSuccess},
        {"links as archives", [&](const fs::path& r) { fs::create_symlink(sentinel, r / "packages" / (std::string(kPattern) + "_merged.zip")),
                                                       fs::create_symlink(sentinel, r / "packages" / (std::string(kEngine) + "_1.200.1.0.zip")); }, kSuccess},
        {"a hard link as a part file", [&](const fs::path& r) { fs::create_hard_link(sentinel, r / part); }, kSuccess},
        {"full directories under a part's and the index's names", [&](const fs::path& r) { WriteFile(r / part / "x", "x"), WriteFile(r / "server.ini/x", "x"); }, kIoError},
        {"a full directory under a new archive's name", [&](const fs::path& r) { WriteFile(r / archive / "x", "x"); }, kIoError, kAny, false,
         "_merged.zip"},
        {"packages/ a link to the outside", [&](const fs::path& r) { fs::remove(r / "packages"), fs::create_directory_symlink(root / "outside", r / "packages"); },
         kRepositoryNotAccessible},
    };
    const auto before = Outside();
    int n = 0;
    for (const auto& c : cases) {
        const fs::path repository = root / ("repo" + std::to_string(++n));
        fs::create_directories(repository / "packages");
        c.plant(repository);
        Context context(repository.string());
        EXPECT_EQ(context.status, c.status == kRepositoryNotAccessible ? c.status : kSuccess) << c.what;
        if (context.handle != nullptr) {
            ZOVRELAY_SetOption(context.handle, 9, c.buildPatch ? 1 : 0);
            const Outcome mirrored = Mirror(context.handle);
            EXPECT_EQ(mirrored.status, c.status) << c.what;
            if (c.held != kAny) {
                EXPECT_EQ(Versions(Held(context.handle)), c.held) << c.what;
            }
            char* message = ZOVRELAY_LocalLastMessage(mirrored.status);
            EXPECT_NE(std::string(message != nullptr ? message : "").find(c.named), std::string::npos) << c.what;
            ZOVRELAY_LocalFreeText(message);
            EXPECT_EQ(Mirror(context.handle).status, c.status) << c.what << ": a second run is not jammed";
        }
        EXPECT_EQ(Outside(), before) << c.what;
    }
}

// The run goes on writing into the directory it opened, even when the path names another by then.
TEST_F(Safety, ARepositorySwappedForALinkMidRunIsNotFollowed) {
    Context context(Path("repo"));
    Recorder recorder(context.handle);
    recorder.answer = [&](const Event& e) {
        if (e.type == ZOVRELAY_EVENT_DOWNLOAD) fs::rename(root / "repo", root / "moved"), fs::create_directory_symlink(root / "outside", root / "repo");
        return 1;
    };
    const auto before = Outside();
    EXPECT_EQ(Mirror(context.handle).status, kSuccess);
    EXPECT_EQ(Outside(), before);
    EXPECT_EQ(CheckRepository(root / "moved"), Lines());
    // Three merged archives, each with its published link.
    EXPECT_EQ(std::distance(fs::directory_iterator(root / "moved/packages"), fs::directory_iterator()), 6);
}

// Exports get the umask's mode; one a killed run left is removed by the next export there, one
// still being written (locked) is not.
TEST_F(Safety, ExportsHonourTheUmaskAndLeaveNoPartialFiles) {
    Context context(Path("repo"));
    ASSERT_EQ(Mirror(context.handle).status, kSuccess);
    const fs::path out = root / "out";
    WriteFile(out / ".old.abc.zovrelay-export", "killed");
    WriteFile(out / ".new.abc.zovrelay-export", "recent");
    const timespec old[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
    utimensat(AT_FDCWD, (out / ".old.abc.zovrelay-export").c_str(), old, 0);
    const mode_t previous = umask(022);
    EXPECT_EQ(ZOVRELAY_ExportComponent(context.handle, Wide(out.string()).c_str(), Entity(kPattern)), kSuccess);
    umask(previous);
    EXPECT_EQ(fs::status(out / (std::string(kPattern) + "-1.100.1.0.zip")).permissions(), fs::perms(0644));
    EXPECT_FALSE(fs::exists(out / ".old.abc.zovrelay-export"));
    EXPECT_TRUE(fs::exists(out / ".new.abc.zovrelay-export"));
}

}  // namespace
}  // namespace relaytest
