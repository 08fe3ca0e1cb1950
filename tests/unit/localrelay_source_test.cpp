// A repository the relay wrote serves other relays, after the module's clean-up too; damage in it
// is found and healed; readers run beside a writer. Contexts share /dev/shm/sem.zovrelay.
#include "localrelay_fixture.h"
#include "api/extensions.h"
#include "archive/ziplayout.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <sstream>

namespace relaytest {
namespace {

class Source : public RelayTest {
protected:
    // A repository of the source's releases 1 and 2 (maxmerge 3, buildpatch), then cleaned up as
    // the module does: server.ini reset, per-version archives deleted.
    std::string Central() {
        Context context(Path("central"));
        Configure(context.handle);
        for (uint64_t release : {1, 2}) {
            MakeSource("source", release);
            EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kSuccess);
        }
        WriteFile(root / "central/server.ini", "[PATTERN]\n\n[ENGINE]\n\n[All_Product]\n\n");
        for (const auto& entry : fs::directory_iterator(root / "central/packages"))
            if (entry.path().string().find("_merged.zip") == std::string::npos) fs::remove(entry);
        return Path("central");
    }
    static void Configure(ZOVRELAY_Context* context) {
        ZOVRELAY_SetOption(context, 9, 1);
        ZOVRELAY_SetOption(context, 10, 3);
    }
};

TEST_F(Source, ACleanedRepositoryServesEveryVersionItHolds) {
    const std::string central = Central();
    Context view(central);
    const Lines held = Held(view.handle);
    ASSERT_EQ(Versions(held), 6u);
    EXPECT_EQ(Call(ZOVRELAY_GetInformation, view.handle, Request().Source(central)).lines.size(), 1u) << "the products it holds";
    for (const std::string& address : {central, "file://" + central}) {
        const std::string branch = Path("branch" + std::to_string(address.size()));
        Context context(branch);
        Configure(context.handle);
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(address).Product(kProduct0)).status, kSuccess) << address;
        EXPECT_EQ(Held(context.handle), held) << address;
        EXPECT_EQ(CheckRepository(branch), Lines()) << address;
        // Exports write the package under its own name, not the archive's.
        EXPECT_EQ(ZOVRELAY_ExportComponent(context.handle, Wide(branch + "/out").c_str(), Entity(kPattern)), kSuccess);
        EXPECT_TRUE(fs::exists(branch + "/out/" + kPattern + "-1.100.2.0.zip")) << address;
    }
}

// A source that rewrites its archives between our catalog read and the downloads: the ranges no
// longer match, so the catalog is read again and the new ranges are taken; nothing wrong is stored.
TEST_F(Source, ARangeReplacedMeanwhileIsReadAgainFromAFreshCatalog) {
    const std::string central = Central();
    Context context(Path("branch"));
    Configure(context.handle);
    Recorder recorder(context.handle);
    recorder.answer = [&](const Event& e) {
        if (e.type != ZOVRELAY_EVENT_DOWNLOAD) return 1;
        MakeSource("source", 3);
        Context writer(central);
        Configure(writer.handle);
        return int(Call(ZOVRELAY_Duplicate, writer.handle, Request().Source(Path("source")).Product(kProduct0)).status == kSuccess);
    };
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(central).Product(kProduct0)).status, kSuccess);
    EXPECT_EQ(Versions(Held(context.handle)), 6u);
    EXPECT_EQ(CheckRepository(Path("branch")), Lines());
}

// A flipped byte in a held version is found by the next run when the archive changed (its change
// time moves even when its modification time is set back), or when its last full verification is a
// week old, and the version is downloaded again; the catalogs stop naming it as soon as the run
// found it. A record restamped for the damaged file stands for a week, as any record does.
TEST_F(Source, DamageIsFoundAndHealed) {
    const std::string central = Central();
    const std::string archive = central + "/packages/" + kPattern + "_merged.zip";
    auto flip = [&](bool keepTimes) {  // the file's times as they were, or as a write leaves them
        const int fd = open(archive.c_str(), O_RDWR);
        const uint64_t offset = ReadEntryRanges(fd).value()[std::string("1.100.2.0/") + kPattern + "-1.100.2.0.zip"].offset + 7;
        struct stat before {};
        fstat(fd, &before);
        char byte = 0;
        pread(fd, &byte, 1, off_t(offset));
        byte = char(byte ^ 1);
        pwrite(fd, &byte, 1, off_t(offset));
        const timespec times[2] = {before.st_atim, before.st_mtim};
        if (keepTimes) futimens(fd, times);
        close(fd);
    };
    // The archive's line of .verified made to state its identity now, verified `age` seconds ago.
    auto restamp = [&](int64_t age) {
        usleep(100000);  // past the clock tick of the change
        struct stat now {};
        stat(archive.c_str(), &now);
        const auto ns = [](const timespec& t) { return std::to_string(int64_t(t.tv_sec) * 1000000000 + t.tv_nsec); };
        timespec clock {};
        clock_gettime(CLOCK_REALTIME, &clock);
        clock.tv_sec -= age;
        std::string text;
        std::istringstream lines(ReadFile(central + "/.verified"));
        for (std::string line; std::getline(lines, line);)
            text += line.rfind(fs::path(archive).filename().string() + " ", 0) != 0 ? line + "\n"
                    : fs::path(archive).filename().string() + " " + std::to_string(now.st_size) + " " + std::to_string(now.st_ino) + " " +
                          std::to_string(now.st_dev) + " " + ns(now.st_mtim) + " " + ns(now.st_ctim) + " " + ns(clock) + "\n";
        WriteFile(central + "/.verified", text);
    };
    constexpr int64_t kNone = -1, kWeek = 7 * 24 * 3600;
    const struct { const char* what; bool keepTimes; int64_t restampedAge; bool healed; uint64_t release; } cases[] = {
        {"a changed archive", false, kNone, true, 0},
        {"bytes rewritten in place, the modification time set back", true, kNone, true, 0},
        {"a record restamped for the damaged archive", true, 0, false, 0},
        {"a record restamped for the damaged archive a week ago", true, kWeek, true, 0},
        // Rewritten for a new release: the held versions copied into the new archive are checked.
        {"an unchanged-looking archive rewritten", true, 0, true, 3},
    };
    for (const auto& c : cases) {
        Context context(central);
        Configure(context.handle);
        Recorder recorder(context.handle);
        Lines lies;
        recorder.answer = [&](const Event&) {
            const Lines found = CatalogLies(central, c.what);
            lies.insert(lies.end(), found.begin(), found.end());
            return 1;
        };
        const auto mirror = [&] { return Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status; };
        const timespec hourAgo[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
        utimensat(AT_FDCWD, archive.c_str(), hourAgo, 0);
        ASSERT_EQ(mirror(), kSuccess) << c.what;  // records the verification
        flip(c.keepTimes);
        if (c.restampedAge != kNone) restamp(c.restampedAge);
        recorder.events.clear();
        if (c.release != 0) MakeSource("source", c.release);
        EXPECT_EQ(mirror(), kSuccess) << c.what;
        if (c.release == 0) {
            EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), c.healed ? 1u : 0u) << c.what;
        }
        EXPECT_EQ(CheckRepository(central).empty(), c.healed) << c.what;
        // A forged record is believed, as documented; otherwise the damage is never served once found.
        EXPECT_EQ(c.restampedAge == 0 ? Lines() : lies, Lines()) << c.what;
        if (!c.healed) flip(false);  // undo, so the next case starts sound
    }
    // A sound archive read back when due is recorded afresh: otherwise every later night reads it again.
    {
        Context context(central);
        Configure(context.handle);
        const auto mirror = [&] { return Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status; };
        ASSERT_EQ(mirror(), kSuccess);  // a night with nothing new, so that the read-back is all that changes
        restamp(kWeek);
        ASSERT_EQ(mirror(), kSuccess);
    }
    const std::string record = ReadFile(central + "/.verified"), line = fs::path(archive).filename().string() + " ";
    const size_t at = record.find(line), end = record.find('\n', at);
    ASSERT_NE(at, std::string::npos);
    const int64_t verifiedAt = std::stoll(record.substr(record.rfind(' ', end) + 1, end));
    EXPECT_GT(verifiedAt, (int64_t(time(nullptr)) - 3600) * 1000000000) << "the read-back was not recorded";
    // A per-version archive is checked the same way and written again from its merged archive.
    MakeSource("source", 2);
    Context context(Path("repo"));
    ZOVRELAY_SetOption(context.handle, 9, 1);
    const Request request = Request().Source(Path("source")).Product(kProduct0);
    ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, request).status, kSuccess);
    const fs::path file = root / "repo/packages" / (std::string(kEngine) + "_1.200.2.0.zip");
    std::string bytes = ReadFile(file);
    bytes[100] ^= 1;
    WriteFile(file, bytes);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, request).status, kSuccess);
    EXPECT_EQ(CheckRepository(Path("repo")), Lines());
}

// An archive replaced under its name by another of the same size and times, only its inode telling
// them apart, is read again: what the held cache recorded of the old one is not taken for it.
// What a mirror records of the archives it wrote (after publishing their links, which change
// their time of change) holds the next nights, which rewrite no record and are then answered by
// the seal the last one left; any change to what the seal saw takes the full run again. Bytes
// written over in place change nothing the seal looks at: a run that reads back finds them.
TEST_F(Source, QuietNightsReadNothingAgainUntilSomethingChanges) {
    const std::string archive = std::string(kPattern) + "_merged.zip";
    const struct {
        const char* what;
        const char* held;  // the pattern's version after the change
        std::function<void(const std::string& repository)> change;
        bool readBack = false;  // the run after the change reads every archive back
    } cases[] = {
        {"a new release", "@1.100.2.0", [&](const std::string&) { MakeSource("source", 2); }},
        {"an archive's bytes changed, its times set back", "@1.100.1.0",
         [&](const std::string& repository) {
             const std::string path = repository + "/packages/" + archive;
             struct stat before {};
             stat(path.c_str(), &before);
             const std::string bytes = ReadFile(path);
             WriteFile(path, bytes.substr(0, 100) + char(bytes[100] ^ 1) + bytes.substr(101));
             const timespec times[2] = {before.st_atim, before.st_mtim};
             utimensat(AT_FDCWD, path.c_str(), times, 0);
         },
         true},
        {"an archive removed", "@1.100.1.0", [&](const std::string& repository) { fs::remove(repository + "/packages/" + archive); }},
        // Last: the source keeps it. A catalog that does not parse is passed over for the next.
        {"a source.ini that is no catalog", "@1.100.1.0", [&](const std::string&) { WriteFile(Path("source/source.ini"), "[none\n"); }},
    };
    for (const auto& test : cases) {
        const std::string repository = Path(test.what);
        MakeSource("source", 1);
        Context context(repository);
        const auto mirror = [&] {
            return Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0));
        };
        const Outcome mirrored = mirror();
        ASSERT_EQ(mirrored.status, kSuccess);
        const auto written = [&] {
            return std::make_pair(fs::last_write_time(repository + "/.verified"), fs::last_write_time(repository + "/.held"));
        };
        const auto before = written();
        for (int night = 0; night < 3; ++night) {
            usleep(50000);  // a rewrite would bear another time
            EXPECT_EQ(mirror(), mirrored) << test.what;
            EXPECT_TRUE(written() == before) << test.what << ", night " << night;
        }
        EXPECT_TRUE(fs::exists(repository + "/.quiet")) << test.what;
        test.change(repository);
        const int mode = ZOVRELAY_LocalRunMode(test.readBack ? ZOVRELAY_LOCAL_READ_BACK : 0);
        const Outcome after = mirror();
        ZOVRELAY_LocalRunMode(mode);
        EXPECT_EQ(after.status, kSuccess) << test.what;
        EXPECT_NE(Held(context.handle).at(0).find(kPattern + std::string(test.held)), std::string::npos) << test.what;
        EXPECT_EQ(CheckRepository(repository), Lines()) << test.what;
    }
}

TEST_F(Source, AnArchiveReplacedUnderItsNameIsReadAgain) {
    const std::string name = std::string(kPattern) + "_merged.zip", mine = Path("a/packages/" + name);
    const timespec hourAgo[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
    for (const char* repository : {"b", "a", "a"}) {  // the second run of "a" records the aged archive
        MakeSource("source", *repository == 'a' ? 1 : 2);
        Context context(Path(repository));
        ASSERT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kSuccess);
        utimensat(AT_FDCWD, mine.c_str(), hourAgo, 0);
    }
    ASSERT_EQ(fs::file_size(mine), fs::file_size(Path("b/packages/" + name)));
    fs::copy_file(Path("b/packages/" + name), Path("a/packages/new"));
    utimensat(AT_FDCWD, Path("a/packages/new").c_str(), hourAgo, 0);
    fs::rename(Path("a/packages/new"), mine);
    Context context(Path("a"));
    EXPECT_NE(Held(context.handle).at(0).find(std::string(kPattern) + "@1.100.2.0"), std::string::npos);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kSuccess);
    EXPECT_NE(ReadFile(Path("a/source.ini")).find(std::string(kPattern) + " 1.100.2.0 "), std::string::npos);
    EXPECT_EQ(CheckRepository(Path("a")), Lines());
}

// A night with nothing new trusts source.ini without formatting it only while it is the file the
// last run wrote: one replaced, or rewritten in place with its times set back, is written again.
TEST_F(Source, ASourceCatalogChangedBehindTheRelayIsWrittenAgain) {
    const fs::path catalog = root / "repo/source.ini";
    const auto tamper = [&](bool inPlace) {
        std::string text = ReadFile(catalog);
        text[text.find(" 1.100.")] = '\t';  // still a valid catalog, and as long
        struct stat before {};
        stat(catalog.c_str(), &before);
        if (!inPlace) fs::remove(catalog);
        WriteFile(catalog, text);
        const timespec times[2] = {before.st_atim, before.st_mtim};
        utimensat(AT_FDCWD, catalog.c_str(), times, 0);
    };
    MakeSource("source", 1);
    Context context(Path("repo"));
    const auto mirror = [&] { return Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status; };
    ASSERT_EQ(mirror(), kSuccess);
    ASSERT_EQ(mirror(), kSuccess);  // the record now vouches for source.ini
    const std::string written = ReadFile(catalog);
    for (const bool inPlace : {false, true}) {
        tamper(inPlace);
        EXPECT_EQ(mirror(), kSuccess);
        EXPECT_EQ(ReadFile(catalog), written) << "in place: " << inPlace;
    }
}

// While a mirror writes, other contexts list, export and read the source catalog; another writer is
// refused at once; a cron guard's flock on the repository directory does not collide.
TEST_F(Source, ReadersRunBesideAWriter) {
    const std::string central = Central();
    MakeSource("source", 3);
    Context context(central);
    Configure(context.handle);
    Recorder recorder(context.handle);
    std::vector<ZOVRELAY_Status> inner;
    recorder.answer = [&](const Event& e) {
        if (e.type != ZOVRELAY_EVENT_DOWNLOADBEGIN) return 1;
        Context other(central);
        inner.insert(inner.end(), {Call(ZOVRELAY_GetInformation, other.handle, Request()).status, Call(ZOVRELAY_GetInformation, other.handle, Request().Source(central)).status,
                                   ZOVRELAY_ExportComponent(other.handle, Wide(Path("out")).c_str(), Entity(kEngine)),
                                   Call(ZOVRELAY_Duplicate, other.handle, Request().Source(Path("source")).Product(kProduct0)).status,
                                   system(("flock -n " + central + " true").c_str()) == 0 ? kSuccess : kRepositoryBusy,
                                   system(("flock -n " + central + "/.lock true").c_str()) == 0 ? kSuccess : kRepositoryBusy});
        return 1;
    };
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kSuccess);
    const std::vector<ZOVRELAY_Status> each = {kSuccess, kSuccess, kSuccess, kRepositoryBusy, kSuccess, kRepositoryBusy};
    ASSERT_EQ(inner.size(), 3 * each.size()) << "one round per download";
    for (size_t i = 0; i < inner.size(); ++i) EXPECT_EQ(inner[i], each[i % each.size()]) << i;
}

// At every event of runs that replace versions, write per-version archives and prune them, the index
// names only files that exist with the size and SHA-256 it states, and source.ini only true ranges.
TEST_F(Source, TheCatalogsNeverLie) {
    Lines lies;
    const auto check = [&](const std::string& when) {
        const Lines found = CatalogLies(root / "repo", when);
        lies.insert(lies.end(), found.begin(), found.end());
        return 1;
    };
    Context context(Path("repo"));
    for (const auto& [option, value] : {std::pair<int, int64_t>{9, 1}, {10, 2}, {12, 1}}) ZOVRELAY_SetOption(context.handle, option, value);
    Recorder recorder(context.handle);
    recorder.answer = [&](const Event& e) { return check("event " + std::to_string(recorder.events.size()) + " type " + std::to_string(e.type)); };
    for (uint64_t release : {1, 2, 3}) {
        MakeSource("source", release);
        EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kSuccess);
        check("after release " + std::to_string(release));
    }
    EXPECT_EQ(lies, Lines());
    EXPECT_GT(recorder.Count(ZOVRELAY_EVENT_REMOVEBEGIN), 0u);
}

}  // namespace
}  // namespace relaytest
