// HTTP and HTTPS transfers against servers on 127.0.0.1 that this test starts and kills: a Python
// file server (plain, and TLS with a self-signed certificate), tinyproxy and microsocks, both
// requiring a user and password. Every file lives in a temporary directory.
#include "localrelay_fixture.h"
#include "transfer/transfer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relaytest {
namespace {

// Serves www/ and three redirects that must not hand the sink anything but the file: one to a
// path on the same server, one to file:// (never followed), one without a location. large.bin (4 MiB,
// several batches) is made as it is sent: byte i is byte i % 8 of the 64-bit counter i / 8.
const char kServerScript[] = R"(
import array, functools, http.server, ssl, sys
port, root = int(sys.argv[1]), sys.argv[2]
class Handler(http.server.SimpleHTTPRequestHandler):
    def do_GET(self):
        if self.path == "/large.bin":
            self.send_response(200); self.send_header("Content-Length", str(4 << 20)); self.end_headers()
            for block in range(4): self.wfile.write(array.array("Q", range(block << 17, (block + 1) << 17)).tobytes())
            return
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

// Port 0: a free loopback port. Otherwise whether something accepts on the port (0 when not).
uint16_t Loopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    const bool ok = port == 0 ? bind(fd, raw, length) == 0 && getsockname(fd, raw, &length) == 0 : connect(fd, raw, length) == 0;
    close(fd);
    return ok ? ntohs(address.sin_port) : 0;
}

std::string SmallFile() {
    std::string bytes;
    for (int i = 0; i < 70000; ++i) bytes += static_cast<char>((i * 7919) >> 3);
    return bytes;
}

// The files served, the servers and the proxies, in a temporary directory of their own. The
// children are killed at the end, and by the kernel if the test process dies first.
struct Servers : ::testing::Environment {
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "localrelay-http-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        WriteFile(root / "www/small.bin", SmallFile());
        WriteFile(root / "server.py", kServerScript);
        http = Loopback(0), https = Loopback(0), httpProxy = Loopback(0), socksProxy = Loopback(0);
        WriteFile(root / "tinyproxy.conf", "Port " + std::to_string(httpProxy) + "\nListen 127.0.0.1\nBasicAuth alice s3cret\nLogLevel Info\n");
        const std::string dir = root.string();
        Start({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
               "-days", "2", "-subj", "/CN=localhost", "-keyout", dir + "/key.pem", "-out", dir + "/cert.pem"}, 0);
        Start({"python3", dir + "/server.py", std::to_string(http), dir + "/www"}, http);
        Start({"python3", dir + "/server.py", std::to_string(https), dir + "/www", dir + "/cert.pem", dir + "/key.pem"}, https);
        Start({"tinyproxy", "-d", "-c", dir + "/tinyproxy.conf"}, httpProxy);
        Start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(socksProxy), "-u", "bob", "-P", "h1dden"}, socksProxy);
    }
    // Port 0: a command that must succeed; otherwise a server that must accept within ten seconds.
    void Start(std::vector<std::string> argv, uint16_t port) {
        const fs::path log = root / (argv[0] + std::to_string(children.size()) + ".log");
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 1), dup2(fd, 2);
            std::vector<char*> args;
            for (std::string& arg : argv) args.push_back(arg.data());
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        int status = 0;
        bool ok = port == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (port != 0) children.push_back(pid);
        for (int attempt = 0; port != 0 && !ok && attempt < 1000 && waitpid(pid, nullptr, WNOHANG) == 0; ++attempt)
            if (!(ok = Loopback(port) != 0)) usleep(10000);
        ASSERT_TRUE(ok) << argv[0] << " failed:\n" << std::ifstream(log).rdbuf();
    }
    void TearDown() override {
        for (pid_t pid : children)  // only children not reaped yet: a reaped one's number may be another process's
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        if (!root.empty()) fs::remove_all(root);
    }
    fs::path root;
    uint16_t http = 0, https = 0, httpProxy = 0, socksProxy = 0;
    std::vector<pid_t> children;
};
Servers* const servers = static_cast<Servers*>(::testing::AddGlobalTestEnvironment(new Servers));

struct Collect : ChunkSink {
    std::string data;
    bool Write(const char* bytes, size_t size) override { return data.append(bytes, size), true; }
};

TransferSettings Settings(int64_t httpsLevel, int type = -1, uint16_t port = 0, std::string user = "", std::string password = "") {
    TransferSettings settings;
    settings.httpsLevel = httpsLevel;
    if (type >= 0) settings.proxy = {true, type, port != 0 ? "127.0.0.1" : "", port, std::move(user), std::move(password)};
    return settings;
}

TEST(LocalRelayHttp, SourcesCertificatesProxiesAndRefusals) {
    const std::string http = "http://127.0.0.1:" + std::to_string(servers->http) + "/";
    const std::string https = "https://127.0.0.1:" + std::to_string(servers->https) + "/";
    const uint16_t tiny = servers->httpProxy, socks = servers->socksProxy;
    const struct { const char* what; std::string url; TransferSettings settings; ZOVRELAY_Status status; } cases[] = {
        {"plain", http + "small.bin", {}, kSuccess},
        {"redirect on the server", http + "to-small", {}, kSuccess},
        {"bandwidth limit", http + "small.bin", [] { TransferSettings s; s.maxBandwidth = 1024; return s; }(), kSuccess},
        {"missing file", http + "absent.bin", {}, kHttpError},
        {"redirect without location", http + "no-location", {}, kHttpError},
        {"redirect to file://", http + "to-file", {}, kUnsupportedAddress},
        {"nobody listening", "http://127.0.0.1:" + std::to_string(Loopback(0)) + "/small.bin", {}, kConnectionFailed},
        {"self-signed, no check", https + "small.bin", Settings(0), kSuccess},
        {"self-signed, peer checked", https + "small.bin", Settings(1), kCertificateRefused},
        {"self-signed, peer and host checked", https + "small.bin", Settings(2), kCertificateRefused},
        {"self-signed, unknown level checks all", https + "small.bin", Settings(7), kCertificateRefused},
        {"http proxy", http + "small.bin", Settings(2, 0, tiny, "alice", "s3cret"), kSuccess},
        {"http proxy tunnel", https + "small.bin", Settings(0, 0, tiny, "alice", "s3cret"), kSuccess},
        {"http proxy, wrong password", http + "small.bin", Settings(2, 0, tiny, "alice", "wrong"), kProxyRefused},
        {"http proxy tunnel, wrong password", https + "small.bin", Settings(0, 0, tiny, "alice", "x"), kProxyRefused},
        {"http proxy, no user", http + "small.bin", Settings(2, 0, tiny), kProxyRefused},
        {"socks5 proxy", http + "small.bin", Settings(2, 1, socks, "bob", "h1dden"), kSuccess},
        {"socks5 proxy to https", https + "small.bin", Settings(0, 1, socks, "bob", "h1dden"), kSuccess},
        {"socks5 proxy, wrong password", http + "small.bin", Settings(2, 1, socks, "bob", "wrong"), kProxyRefused},
        {"socks5 proxy, no user", http + "small.bin", Settings(2, 1, socks), kProxyRefused},
        {"unknown proxy type", http + "small.bin", Settings(2, 2, tiny, "alice", "s3cret"), kNoSourceReachable},
        {"proxy without a host", http + "small.bin", Settings(2, 0), kNoSourceReachable},
    };
    for (const auto& c : cases) {
        Collect sink;
        std::string error;
        EXPECT_EQ(FetchHttp(c.url, c.settings, sink, &error), c.status) << c.what << ": " << error;
        // The file and nothing else, or nothing and a one-line reason.
        EXPECT_TRUE(c.status == kSuccess ? sink.data == SmallFile() : sink.data.empty()) << c.what << ": got " << sink.data.size() << " bytes";
        EXPECT_TRUE(c.status == kSuccess || (!error.empty() && error.find('\n') == std::string::npos)) << c.what << ": " << error;
    }
}

// A file of several batches arrives whole and in order. Within a transfer and at its end (where
// the last bytes reach the sink) a sink that answers false stops it at once, and one that throws
// is not swallowed.
TEST(LocalRelayHttp, StreamsAndStopsWithTheSink) {
    const std::string http = "http://127.0.0.1:" + std::to_string(servers->http);
    std::string large;
    for (uint64_t i = 0; i < 4u << 20; ++i) large += static_cast<char>((i / 8) >> (8 * (i % 8)));
    Collect sink;
    EXPECT_EQ(FetchHttp(http + "/large.bin", {}, sink, nullptr), kSuccess);
    EXPECT_TRUE(sink.data == large) << sink.data.size() << " bytes differ";
    for (const char* file : {"/large.bin", "/small.bin"}) {
        struct Stop : ChunkSink { int calls = 0; bool Write(const char*, size_t) override { return ++calls, false; } } stop;
        stop.stopStatus = kCancelled;
        EXPECT_EQ(FetchHttp(http + file, {}, stop, nullptr), kCancelled) << file;
        EXPECT_EQ(stop.calls, 1) << file;
        struct Throw : ChunkSink { bool Write(const char*, size_t) override { throw std::runtime_error("disk gone"); } } thrower;
        EXPECT_THROW(FetchHttp(http + file, {}, thrower, nullptr), std::runtime_error) << file;
    }
}

}  // namespace
}  // namespace relaytest
