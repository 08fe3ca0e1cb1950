// Local transfers: paths and file URLs, the catalog size limit, and the reads maxbandwidth paces.
// No context is opened.
#include "localrelay_fixture.h"
#include "transfer/transfer.h"

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

}  // namespace
}  // namespace relaytest
