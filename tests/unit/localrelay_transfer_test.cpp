// Local transfers: paths and file URLs, the catalog size limit, and maxbandwidth as a real limit.
#include "transfer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;
using namespace localrelay;

struct Collect : ChunkSink {
    std::string bytes;
    bool Write(const char* data, size_t size) override {
        bytes.append(data, size);
        return true;
    }
};

class LocalTransfer : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "localrelay-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
    }
    void TearDown() override { fs::remove_all(root); }
    std::string Make(const std::string& name, size_t size) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = char(i * 7 + i / 251);
        std::ofstream((root / name).string(), std::ios::binary) << bytes;
        return bytes;
    }
    fs::path root;
};

TEST_F(LocalTransfer, ReadsPathsAndFileUrls) {
    const std::string bytes = Make("a b.bin", 200 * 1024 + 3);
    const std::string path = (root / "a b.bin").string();
    std::string escaped = path;
    escaped.replace(escaped.find(' '), 1, "%20");
    const struct { std::string address; ZOVRELAY_Status status; } cases[] = {
        {path, kSuccess},
        {"file://" + escaped, kSuccess},
        {"FILE://localhost" + escaped, kSuccess},
        {"file://" + path, kSuccess},  // a space needs no escape in a file URL we read
        {(root / "missing").string(), kNoSourceReachable},
        {root.string(), kNoSourceReachable},  // a directory
        {"file://elsewhere" + path, kNoSourceReachable},
        {"file://" + escaped + "%2", kNoSourceReachable},
        {"file://" + escaped + "%00", kNoSourceReachable},
        {"gopher://host/a", kNoSourceReachable},
        {"", kNoSourceReachable},
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

TEST_F(LocalTransfer, MaxbandwidthLimitsLocalReads) {
    const std::string bytes = Make("data", 96 * 1024);
    for (const int64_t limit : {int64_t(0), int64_t(-5), int64_t(256)}) {
        TransferSettings settings;
        settings.maxBandwidth = limit;
        Collect sink;
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(Fetch((root / "data").string(), settings, sink), kSuccess);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(sink.bytes, bytes);
        // 96 KiB at 256 KiB/s take 0.375 s; without a limit, next to nothing.
        if (limit > 0) {
            EXPECT_GE(seconds, 0.3) << limit;
        } else {
            EXPECT_LT(seconds, 0.2) << limit;
        }
    }
}

}  // namespace
