// HTTP and HTTPS transfers against servers on 127.0.0.1 that this test starts and kills: a Python
// file server (plain, and TLS with a self-signed certificate), tinyproxy and microsocks, both
// requiring a user and password. Every file lives in a temporary directory.
#include "transfer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

namespace fs = std::filesystem;
using namespace localrelay;

namespace {

// Redirects that must not hand the sink anything but the file: one to a path on the same
// server, one to file:// (never followed), one without a location.
const char kServerScript[] = R"(
import functools, http.server, ssl, sys
port, root = int(sys.argv[1]), sys.argv[2]
class Handler(http.server.SimpleHTTPRequestHandler):
    def do_GET(self):
        moved = {"/to-small": "/small.bin", "/to-file": "file:///etc/hostname", "/no-location": None}
        if self.path not in moved: return super().do_GET()
        self.send_response(302)
        if moved[self.path]: self.send_header("Location", moved[self.path])
        self.send_header("Content-Length", "12"); self.end_headers(); self.wfile.write(b"not the file")
    def log_message(self, *args): pass
server = http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(Handler, directory=root))
if len(sys.argv) > 3:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER); context.load_cert_chain(sys.argv[3], sys.argv[4])
    server.socket = context.wrap_socket(server.socket, server_side=True)
server.serve_forever()
)";

int LoopbackSocket(uint16_t port, bool bindIt) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    if (fd >= 0 && (bindIt ? bind(fd, raw, sizeof address) : connect(fd, raw, sizeof address)) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

uint16_t FreePort() {
    const int fd = LoopbackSocket(0, true);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

// A child process, killed when this object goes, and by the kernel if the test process dies first.
class Process {
public:
    Process(std::vector<std::string> argv, const fs::path& log) {
        std::vector<char*> args;
        for (std::string& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 1);
            dup2(fd, 2);
            execvp(args[0], args.data());
            _exit(127);
        }
    }
    ~Process() {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    }
    bool Succeeds() {
        int status = 0;
        const bool ended = pid_ > 0 && waitpid(pid_, &status, 0) == pid_;
        pid_ = -1;
        return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    // Waits up to ten seconds for the port to accept; false at once if the process ended.
    bool Serves(uint16_t port) {
        for (int attempt = 0; attempt < 1000; ++attempt) {
            const int fd = LoopbackSocket(port, false);
            if (fd >= 0) return close(fd), true;
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) return pid_ = -1, false;
            usleep(10000);
        }
        return false;
    }

private:
    pid_t pid_ = -1;
};

std::string SmallFile() {
    std::string bytes;
    for (int i = 0; i < 70000; ++i) bytes += static_cast<char>((i * 7919) >> 3);
    return bytes;
}

// Byte i of the large file is byte i % 8 of the 64-bit counter i / 8: order and completeness show.
char LargeByte(uint64_t offset) { return static_cast<char>((offset / 8) >> (8 * (offset % 8))); }
constexpr uint64_t kLargeSize = 160u << 20;

struct Servers : ::testing::Environment {
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "localrelay-http-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        fs::create_directory(root / "www");
        std::ofstream(root / "www/small.bin", std::ios::binary) << SmallFile();
        std::ofstream large(root / "www/large.bin", std::ios::binary);
        std::vector<char> block(1 << 20);
        for (uint64_t offset = 0; offset < kLargeSize; offset += block.size()) {
            for (size_t i = 0; i < block.size(); ++i) block[i] = LargeByte(offset + i);
            large.write(block.data(), block.size());
        }
        large.close();
        std::ofstream(root / "server.py") << kServerScript;
        http = FreePort(), https = FreePort(), httpProxy = FreePort(), socksProxy = FreePort();
        std::ofstream(root / "tinyproxy.conf") << "Port " << httpProxy
                                               << "\nListen 127.0.0.1\nBasicAuth alice s3cret\nLogLevel Info\n";
        const std::string dir = root.string();
        Start({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
               "-days", "2", "-subj", "/CN=localhost", "-keyout", dir + "/key.pem", "-out", dir + "/cert.pem"}, 0);
        Start({"python3", dir + "/server.py", std::to_string(http), dir + "/www"}, http);
        Start({"python3", dir + "/server.py", std::to_string(https), dir + "/www", dir + "/cert.pem", dir + "/key.pem"},
              https);
        Start({"tinyproxy", "-d", "-c", dir + "/tinyproxy.conf"}, httpProxy);
        Start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(socksProxy), "-u", "bob", "-P", "h1dden"},
              socksProxy);
    }
    // Port 0: a command that runs to its end; otherwise a server that must come to accept.
    void Start(std::vector<std::string> argv, uint16_t port) {
        const std::string name = argv[0];
        const fs::path log = root / (name + std::to_string(processes.size()) + ".log");
        processes.push_back(std::make_unique<Process>(argv, log));
        const bool ok = port == 0 ? processes.back()->Succeeds() : processes.back()->Serves(port);
        ASSERT_TRUE(ok) << name << " failed:\n"
                                                    << std::ifstream(log).rdbuf();
    }
    void TearDown() override {
        processes.clear();
        if (!root.empty()) fs::remove_all(root);
    }
    fs::path root;
    uint16_t http = 0, https = 0, httpProxy = 0, socksProxy = 0;
    std::vector<std::unique_ptr<Process>> processes;
};
Servers* const servers = static_cast<Servers*>(::testing::AddGlobalTestEnvironment(new Servers));

struct Collect : ChunkSink {
    std::string data;
    bool Write(const char* bytes, size_t size) override { return data.append(bytes, size), true; }
};

TransferSettings Proxied(int type, uint16_t port, std::string user, std::string password, int64_t httpsLevel = 2) {
    TransferSettings settings;
    settings.httpsLevel = httpsLevel;
    settings.proxy = {true, type, "127.0.0.1", port, std::move(user), std::move(password)};
    return settings;
}

TEST(LocalRelayHttp, SourcesCertificatesProxiesAndRefusals) {
    const std::string http = "http://127.0.0.1:" + std::to_string(servers->http);
    const std::string https = "https://127.0.0.1:" + std::to_string(servers->https);
    const uint16_t tiny = servers->httpProxy, socks = servers->socksProxy;
    auto level = [](int64_t httpsLevel) { TransferSettings s; s.httpsLevel = httpsLevel; return s; };
    TransferSettings hostless, limited;
    hostless.proxy.used = true;
    limited.maxBandwidth = 1024;
    const struct { const char* what; std::string url; TransferSettings settings; ZOVRELAY_Status status; } cases[] = {
        {"plain", http + "/small.bin", {}, kSuccess},
        {"redirect on the server", http + "/to-small", {}, kSuccess},
        {"bandwidth limit", http + "/small.bin", limited, kSuccess},
        {"missing file", http + "/absent.bin", {}, kNoSourceReachable},
        {"redirect without location", http + "/no-location", {}, kNoSourceReachable},
        {"redirect to file://", http + "/to-file", {}, kNoSourceReachable},
        {"nobody listening", "http://127.0.0.1:" + std::to_string(FreePort()) + "/small.bin", {}, kNoSourceReachable},
        {"self-signed, no check", https + "/small.bin", level(0), kSuccess},
        {"self-signed, peer checked", https + "/small.bin", level(1), kNoSourceReachable},
        {"self-signed, peer and host checked", https + "/small.bin", level(2), kNoSourceReachable},
        {"self-signed, unknown level checks all", https + "/small.bin", level(7), kNoSourceReachable},
        {"http proxy", http + "/small.bin", Proxied(0, tiny, "alice", "s3cret"), kSuccess},
        {"http proxy tunnel", https + "/small.bin", Proxied(0, tiny, "alice", "s3cret", 0), kSuccess},
        {"http proxy, wrong password", http + "/small.bin", Proxied(0, tiny, "alice", "wrong"), kNoSourceReachable},
        {"http proxy tunnel, wrong password", https + "/small.bin", Proxied(0, tiny, "alice", "x", 0), kNoSourceReachable},
        {"http proxy, no user", http + "/small.bin", Proxied(0, tiny, "", ""), kNoSourceReachable},
        {"socks5 proxy", http + "/small.bin", Proxied(1, socks, "bob", "h1dden"), kSuccess},
        {"socks5 proxy to https", https + "/small.bin", Proxied(1, socks, "bob", "h1dden", 0), kSuccess},
        {"socks5 proxy, wrong password", http + "/small.bin", Proxied(1, socks, "bob", "wrong"), kNoSourceReachable},
        {"socks5 proxy, no user", http + "/small.bin", Proxied(1, socks, "", ""), kNoSourceReachable},
        {"unknown proxy type", http + "/small.bin", Proxied(2, tiny, "alice", "s3cret"), kNoSourceReachable},
        {"proxy without a host", http + "/small.bin", hostless, kNoSourceReachable},
    };
    for (const auto& c : cases) {
        Collect sink;
        std::string error;
        EXPECT_EQ(FetchHttp(c.url, c.settings, sink, &error), c.status) << c.what << ": " << error;
        if (c.status == kSuccess) {
            EXPECT_TRUE(sink.data == SmallFile()) << c.what << ": " << sink.data.size() << " bytes differ";
        } else {
            EXPECT_EQ(sink.data.size(), 0u) << c.what << ": the sink got a body that is not the file";
            EXPECT_FALSE(error.empty()) << c.what;
            EXPECT_EQ(error.find('\n'), std::string::npos) << c.what << ": " << error;
        }
    }
}

// Within the transfer and at its end, where the last bytes reach the sink.
TEST(LocalRelayHttp, TheSinkStopsTheTransferAtOnceOrThrowsThrough) {
    for (const char* file : {"/large.bin", "/small.bin"}) {
        struct Stop : ChunkSink {
            int calls = 0;
            bool Write(const char*, size_t) override { return ++calls, false; }
        } stop;
        stop.stopStatus = kCancelled;
        const std::string url = "http://127.0.0.1:" + std::to_string(servers->http) + file;
        EXPECT_EQ(FetchHttp(url, {}, stop, nullptr), kCancelled) << file;
        EXPECT_EQ(stop.calls, 1) << file;

        struct Throw : ChunkSink {
            bool Write(const char*, size_t) override { throw std::runtime_error("disk gone"); }
        } thrower;
        EXPECT_THROW(FetchHttp(url, {}, thrower, nullptr), std::runtime_error) << file;
    }
}

TEST(LocalRelayHttp, ALargeFileStreamsInBoundedMemory) {
    struct Verify : ChunkSink {
        uint64_t offset = 0, mismatches = 0;
        bool Write(const char* bytes, size_t size) override {
            for (size_t i = 0; i < size; ++i, ++offset) mismatches += bytes[i] != LargeByte(offset);
            return true;
        }
    } verify;
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    const std::string url = "http://127.0.0.1:" + std::to_string(servers->http) + "/large.bin";
    std::string error;
    ASSERT_EQ(FetchHttp(url, {}, verify, &error), kSuccess) << error;
    getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(verify.offset, kLargeSize);
    EXPECT_EQ(verify.mismatches, 0u);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "peak resident KiB grew with the file";
}

}  // namespace
