// Local transfers: paths and file URLs, the catalog size limit, the reads maxbandwidth paces, and
// what a directory source may make the relay read. Only the last case opens a context.
#include "api/extensions.h"
#include "localrelay_fixture.h"
#include "transfer/downloader.h"
#include "transfer/part.h"
#include "transfer/transfer.h"

#include <fcntl.h>
#include <unistd.h>

namespace relaytest {
namespace {

struct Collect : ChunkSink {
    std::string bytes;
    size_t largest = 0;  // the largest chunk handed over
    bool Write(const char* data, size_t size) override {
        largest = std::max(largest, size);
        return bytes.append(data, size), true;
    }
};

using LocalTransfer = RelayTest;

TEST_F(LocalTransfer, ReadsPathsAndFileUrls) {
    std::string bytes(200 * 1024 + 3, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = char(i * 7 + i / 251);
    const std::string path = Path("a b.bin"), escaped = Path("a%20b.bin");
    WriteFile(path, bytes);
    const struct { std::string address; ZOVRELAY_Status status; } cases[] = {
        {path, kSuccess}, {"file://" + escaped, kSuccess}, {"FILE://localhost" + escaped, kSuccess},
        {"file://" + path, kSuccess},  // a space needs no escape in a file URL we read
        {Path("missing"), kNoSourceReachable}, {root.string(), kNoSourceReachable},  // a directory
        {"file://elsewhere" + path, kNoSourceReachable}, {"file://" + escaped + "%2", kNoSourceReachable},
        {"file://" + escaped + "%00", kNoSourceReachable}, {"gopher://host/a", kUnsupportedAddress}, {"", kNoSourceReachable},
    };
    for (const auto& c : cases) {
        Collect sink;
        std::string error;
        EXPECT_EQ(Fetch(c.address, TransferSettings{}, sink, &error), c.status) << c.address;
        EXPECT_EQ(sink.bytes == bytes, c.status == kSuccess) << c.address;
        EXPECT_EQ(error.empty(), c.status == kSuccess) << c.address << ": " << error;
    }
    // A catalog is read whole, up to a limit.
    std::string text;
    EXPECT_EQ(FetchText(path, TransferSettings{}, text, bytes.size()), kSuccess);
    EXPECT_EQ(text, bytes);
    EXPECT_EQ(FetchText(path, TransferSettings{}, text, bytes.size() - 1), kInvalidCatalog);
    EXPECT_TRUE(text.empty());
}

// Reads go through a buffer of at most 64 KiB; under maxbandwidth (KiB/s), of a quarter second's
// worth, so that a low limit does not arrive in bursts.
TEST_F(LocalTransfer, MaxbandwidthReadsAQuarterSecondAtATime) {
    WriteFile(Path("data"), std::string(64 * 1024, 'x'));
    for (const auto& [limit, largest] : {std::pair<int64_t, size_t>{0, 64 * 1024}, {-5, 64 * 1024}, {256, 64 * 1024}, {128, 32 * 1024}}) {
        Collect sink;
        EXPECT_EQ(Fetch(Path("data"), TransferSettings{limit, 2, {}}, sink), kSuccess) << limit;
        EXPECT_TRUE(sink.bytes.size() == 64 * 1024 && sink.largest == largest) << limit << ": chunks of up to " << sink.largest;
    }
}

// A directory source's packages are opened beneath it and never through a link, by openat2 and
// by the component-wise way alike; through the engine the failure names the package, and a byte
// range too short for any package is refused before it is read.
TEST_F(LocalTransfer, DirectorySourcesKeepToTheirDirectory) {
    fs::create_directories(Path("source/pattern")), fs::create_directories(Path("elsewhere"));
    const std::string bytes(100, 'a'), secret(100, 's');
    WriteFile(Path("source/pattern/a.zip"), bytes), WriteFile(Path("elsewhere/secret"), secret);
    fs::create_symlink(Path("elsewhere/secret"), Path("source/pattern/link.zip"));
    fs::create_symlink("a.zip", Path("source/pattern/inside.zip"));
    fs::create_symlink(Path("elsewhere"), Path("source/outside"));
    const char *link = "a symbolic link, not followed in a directory source", *outside = "outside the source directory";
    const struct { const char* relative; const char* refusal; } cases[] = {
        {"pattern/a.zip", nullptr}, {"./pattern//a.zip", nullptr}, {"pattern/link.zip", link}, {"pattern/inside.zip", link},
        {"outside/secret", link}, {"../elsewhere/secret", outside}, {"pattern/../../elsewhere/secret", outside},
    };
    for (const bool componentWise : {false, true})
        for (const auto& c : cases) {
            std::string why;
            const int fd = OpenBeneath(Path("source"), c.relative, why, componentWise);
            EXPECT_EQ(fd >= 0, c.refusal == nullptr) << c.relative << " " << componentWise << ": " << why;
            EXPECT_EQ(why, c.refusal != nullptr ? c.refusal : "") << c.relative << " " << componentWise;
            if (fd >= 0) close(fd);
        }

    fs::create_directories(Path("packages"));
    const int packages = open(Path("packages").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const TransferSettings settings;
    auto download = [&](const std::string& relative, const std::string& content, uint64_t offset) {
        Download d;
        d.information = relative, d.address = "file://" + Path("source/" + relative), d.root = "file://" + Path("source");
        d.settings = &settings, d.offset = offset, d.size = content.size(), d.sha256 = Digest(content);
        d.part = "." + std::to_string(offset) + relative.substr(8) + ".part";
        return d;
    };
    std::vector<Download> downloads{download("pattern/a.zip", bytes, 0), download("pattern/link.zip", secret, 0),
                                    download("pattern/a.zip", bytes.substr(3, 22), 3), download("pattern/a.zip", "a", 3)};
    EXPECT_EQ(DownloadAll(downloads, packages, 0, Events(), [](Download&) { return kSuccess; }), kSuccess);
    close(packages);
    const struct { ZOVRELAY_Status status; std::string reason; } expected[] = {
        {kSuccess, ""}, {kNoSourceReachable, Path("source/pattern/link.zip") + ": a symbolic link, not followed in a directory source"},
        {kSuccess, ""}, {kIntegrityFailed, Path("source/pattern/a.zip") + ": a byte range of 1 bytes, below the 22 bytes the smallest package takes"},
    };
    for (size_t i = 0; i < downloads.size(); ++i)
        EXPECT_TRUE(downloads[i].status == expected[i].status && downloads[i].reason == expected[i].reason)
            << i << ": " << downloads[i].status << " " << downloads[i].reason;
}

// Sizes a source announces never wrap a sum: a catalog whose sizes add up past 2^63 - 1 is
// refused as invalid before anything is fetched.
TEST_F(LocalTransfer, SizesThatWouldWrapAreRefused) {
    std::string catalog = "[PATTERN]\n";
    int n = 3;
    for (const uint64_t size : {uint64_t(INT64_MAX), (uint64_t(1) << 63) + 1 - 100000000000000u, uint64_t(100000000000000u)})
        catalog += "c3t" + std::to_string(n++) + "l1p-1r-1o-1 1.0.0.0 pattern/p" + std::to_string(size) + ".zip " +
                   std::to_string(size) + " " + std::string(64, 'a') + "\n";
    WriteFile(Path("source/server.ini"), catalog + "[ENGINE]\n[All_Product]\n" + kProduct0 +
                                             " 1.0.0.0 c3t3l1p-1r-1o-1 c3t4l1p-1r-1o-1 c3t5l1p-1r-1o-1\n");
    Context context(Path("repository"));
    ASSERT_EQ(context.status, kSuccess);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(Path("source")).Product(kProduct0)).status, kInvalidCatalog);
    char* message = ZOVRELAY_LocalLastMessage(kInvalidCatalog);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(std::string(message).rfind("invalid catalog (sizes sum past 2^63): ", 0), 0u) << message;
    ZOVRELAY_LocalFreeText(message);
    EXPECT_FALSE(fs::exists(Path("repository/packages")) && !fs::is_empty(Path("repository/packages")));
}

// Parts made ahead, under their names or unnamed and then linked: a stale part or a link under
// the name is replaced (the link's target untouched), a name something else holds or that has a
// resume record is left to the part's own opening, and what nobody took is removed.
TEST_F(LocalTransfer, PartsMadeAheadTakeOnlyTheirNames) {
    for (const bool unnamed : {false, true}) {
        const fs::path dir = root / (unnamed ? "unnamed" : "named");
        fs::create_directories(dir / ".held.part");  // a directory under a part's name
        WriteFile(dir / ".stale.part", "stale");
        WriteFile(dir / ".resumed.part", "kept"), WriteFile(dir / ".resumed.resume.part", "record");
        WriteFile(root / "outside", "outside");
        fs::create_symlink(root / "outside", dir / ".linked.part");
        const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        {
            PartMaker maker(fd, {".fresh.part", ".stale.part", ".linked.part", ".held.part", ".resumed.part", ".untaken.part"},
                            unnamed);
            maker.Run();  // no thread: every name is looked at first
            for (const char* name : {".fresh.part", ".stale.part", ".linked.part"}) {
                const int part = maker.Take(name);
                EXPECT_GE(part, 0) << name << (unnamed ? " unnamed" : "");
                EXPECT_EQ(::write(part, "new", 3), 3);
                ::close(part);
                EXPECT_EQ(ReadFile(dir / name), "new") << name;
            }
            for (const char* name : {".held.part", ".resumed.part", ".other.part"}) EXPECT_EQ(maker.Take(name), -1) << name;
            EXPECT_TRUE(fs::exists(dir / ".untaken.part"));
        }
        ::close(fd);
        EXPECT_FALSE(fs::exists(dir / ".untaken.part"));
        EXPECT_EQ(ReadFile(dir / ".resumed.part"), "kept");
        EXPECT_TRUE(fs::is_directory(dir / ".held.part"));
        EXPECT_EQ(ReadFile(root / "outside"), "outside");
    }
}

}  // namespace
}  // namespace relaytest
