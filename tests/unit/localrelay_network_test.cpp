// The download queue against a fault-injecting HTTP server on 127.0.0.1 that this test starts: a
// path "/<fault>/<file>" serves www/<file> after the fault. Every request is logged with its Range.
// The failover case opens contexts, which share /dev/shm/sem.zovrelay.
#include "transfer/downloader.h"
#include "localrelay_fixture.h"
#include "run/sources.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <thread>

namespace relaytest {
namespace {

const char kServerScript[] = R"(
import http.server, os, sys, time
port, root, log = int(sys.argv[1]), sys.argv[2], sys.argv[3]
seen = set()
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def do_GET(self):
        _, fault, name = self.path.split("/", 2)
        with open(log, "a") as out: out.write("%s %s\n" % (self.path, self.headers.get("Range", "-")))
        first = self.path not in seen; seen.add(self.path)
        missing = not os.path.exists(os.path.join(root, name))
        if fault == "gone" or missing or (fault == "busy" and first):
            self.send_response(503 if fault == "busy" and not missing else 404); self.send_header("Retry-After", "0")
            self.send_header("Content-Length", "0"); self.end_headers(); return
        data = open(os.path.join(root, name), "rb").read()
        if fault == "trickle":  # 2 bytes/s, and no pause asked between attempts
            self.send_response(200); self.send_header("Retry-After", "0")
            self.send_header("Content-Length", str(len(data))); self.end_headers()
            for i in range(len(data)): self.wfile.write(data[i:i + 1]); self.wfile.flush(); time.sleep(0.5)
            return
        start, code = 0, 200
        ranged = self.headers.get("Range")
        if ranged and fault != "norange" and self.headers.get("If-Range", '"v1"') == '"v1"':
            start, end = map(int, ranged[6:].split("-")); code = 206; data = data[:end + 1]
        self.send_response(code); self.send_header("ETag", '"v1"')
        self.send_header("Content-Length", str(len(data) - start))
        if code == 206: self.send_header("Content-Range", "bytes %d-%d/%d" % (start, len(data) - 1, len(data)))
        self.end_headers()
        body = data[start:]
        if fault == "drop" and first: body = body[:len(body) // 2]
        if fault in ("slow", "norange"):
            for i in range(0, len(body), 16384): self.wfile.write(body[i:i + 16384]); self.wfile.flush(); time.sleep(0.002)
        else: self.wfile.write(body)
        if fault == "drop" and first: self.close_connection = True
    def handle(self):
        try: super().handle()
        except OSError: pass  # a cancelled transfer
    def log_message(self, *args): pass
http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler).serve_forever()
)";

uint16_t FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

struct Network : RelayTest {
    void SetUp() override {
        RelayTest::SetUp();
        port = FreePort();
        WriteFile(Path("server.py"), kServerScript);
        fs::create_directories(Path("www")), fs::create_directories(Path("packages"));
        server = fork();
        if (server == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("python3", "python3", Path("server.py").c_str(), std::to_string(port).c_str(), Path("www").c_str(),
                   Path("log").c_str(), nullptr);
            _exit(127);
        }
        const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
        for (int i = 0; i < 500 && system(("curl -sf -o /dev/null " + url + "gone/none 2>/dev/null; test -f " + Path("log")).c_str()) != 0; ++i)
            usleep(20000);
        directory = open(Path("packages").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    void TearDown() override {
        close(directory);
        kill(server, SIGKILL), waitpid(server, nullptr, 0);
        RelayTest::TearDown();
    }
    // A download of `size` bytes through the fault: www/<name>, or the bytes from `offset` of it.
    Download Package(const std::string& fault, const std::string& name, size_t size, size_t offset = 0) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = char((i * 7919) >> 5);
        WriteFile(Path("www/" + name), std::string(offset, 'x') + bytes + std::string(offset, 'y'));
        Download d;
        d.information = name, d.address = "http://127.0.0.1:" + std::to_string(port) + "/" + fault + "/" + name;
        d.settings = &settings, d.size = size, d.sha256 = Digest(bytes), d.part = "." + name + ".part", d.offset = offset;
        return d;
    }
    ZOVRELAY_Status Run(std::vector<Download>& downloads, int64_t bandwidth = 0) {
        fs::remove(Path("log"));
        return DownloadAll(downloads, directory, bandwidth, events, [](Download&) { return kSuccess; });
    }
    Lines Log() {
        Lines lines;
        std::istringstream text(ReadFile(Path("log")));
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    TransferSettings settings;
    Events events;
    uint16_t port = 0;
    pid_t server = 0;
    int directory = -1;
};

struct Seen {
    std::vector<Event> events;
    std::thread::id thread;
    size_t cancelWhen = 0;  // answers 0 once this many packages hold 300 KiB; 0: never
    std::set<std::string> progressed;
    size_t cancelled = 0;  // events seen when it answered 0
    static int Record(ZOVRELAY_EventType type, ZOVRELAY_EventMessage* m, void* self) {
        auto& seen = *static_cast<Seen*>(self);
        seen.events.push_back({type, Narrow(m->information), m->total, m->finished});
        if (std::this_thread::get_id() != seen.thread) seen.events.back().information += " (another thread)";
        if (m->finished >= (300 << 10)) seen.progressed.insert(seen.events.back().information);  // past the resume record
        if (seen.cancelWhen == 0 || seen.cancelled != 0 || seen.progressed.size() != seen.cancelWhen) return 1;
        seen.cancelled = seen.events.size();
        return 0;
    }
};

// Each fault, once: what the package ends as, and what the server was asked.
TEST_F(Network, RetriesWhatIsTransientAndNothingElse) {
    const struct { const char* fault; size_t offset; ZOVRELAY_Status status; Lines requests; } cases[] = {
        {"ok", 0, kSuccess, {"/ok/a.bin -"}},
        {"busy", 0, kSuccess, {"/busy/a.bin -", "/busy/a.bin -"}},                  // 503 with Retry-After 0
        {"drop", 0, kSuccess, {"/drop/a.bin -", "/drop/a.bin bytes=50000-99999"}},  // only the missing half again
        {"gone", 0, kHttpError, {"/gone/a.bin -"}},                                 // 404: never retried
        // A package inside a larger file: its range, or its bytes picked from the whole file.
        {"ok", 1000, kSuccess, {"/ok/a.bin bytes=1000-100999"}},
        {"norange", 1000, kSuccess, {"/norange/a.bin bytes=1000-100999"}},
    };
    for (const auto& c : cases) {
        std::vector<Download> downloads{Package(c.fault, "a.bin", 100000, c.offset)};
        EXPECT_EQ(Run(downloads), kSuccess) << c.fault;
        EXPECT_EQ(downloads[0].status, c.status) << c.fault << ": " << downloads[0].reason;
        EXPECT_EQ(Log(), c.requests) << c.fault;
        EXPECT_EQ(fs::exists(Path("packages/.a.bin.part")), c.status > 0) << c.fault;
        fs::remove(Path("packages/.a.bin.part"));
    }
}

// Catalogs are fetched whole, with the same rule: what is transient is tried again.
TEST_F(Network, CatalogFetchRetriesWhatIsTransient) {
    WriteFile(Path("www/server.ini"), std::string(100000, 'c'));
    const struct { const char* fault; ZOVRELAY_Status status; size_t requests; } cases[] = {
        {"busy", kSuccess, 2}, {"drop", kSuccess, 2}, {"gone", kHttpError, 1}};
    for (const auto& c : cases) {
        std::string text;
        fs::remove(Path("log"));
        EXPECT_EQ(FetchText("http://127.0.0.1:" + std::to_string(port) + "/" + c.fault + "/server.ini", settings, text), c.status);
        EXPECT_EQ(Log().size(), c.requests) << c.fault;
        EXPECT_EQ(text.size(), c.status > 0 ? 100000u : 0u) << c.fault;
    }
}

// A cancelled run stops every transfer at once and keeps what arrived; the next run asks only for
// the rest, and a server that ignores ranges has the package fetched whole.
TEST_F(Network, CancelKeepsPartsThatTheNextRunContinues) {
    Seen seen{{}, std::this_thread::get_id(), 3, {}, 0};
    events.Subscribe(ZOVRELAY_EVENT_PROGRESS, &Seen::Record, &seen);
    events.Subscribe(ZOVRELAY_EVENT_DOWNLOADEND, &Seen::Record, &seen);
    std::vector<Download> downloads{Package("slow", "a.bin", 4 << 20), Package("slow", "b.bin", 4 << 20),
                                    Package("norange", "c.bin", 4 << 20)};
    EXPECT_EQ(Run(downloads), kCancelled);
    EXPECT_EQ(seen.events.size(), seen.cancelled) << "events went on after the cancel";
    for (const Event& e : seen.events) EXPECT_EQ(e.information.find("thread"), std::string::npos) << e.information;

    seen.cancelWhen = 0;
    for (Download& d : downloads) d.received = 0;
    EXPECT_EQ(Run(downloads), kSuccess);
    const Lines log = Log();  // sorted: c, a, b
    ASSERT_EQ(log.size(), 3u) << testing::PrintToString(log);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(downloads[i].status, kSuccess) << downloads[i].reason;
        EXPECT_GT(downloads[i].resumed, 0u) << i;
        EXPECT_NE(log[(i + 1) % 3].find("bytes=" + std::to_string(downloads[i].resumed) + "-"), std::string::npos) << log[i];
    }
    EXPECT_EQ(downloads[0].received + downloads[0].resumed, downloads[0].size);
    EXPECT_EQ(downloads[2].received, downloads[2].size);  // range ignored: all of it again
}

// A part kept for resuming that has become a link is never written through: the package starts over.
TEST_F(Network, APartReplacedByALinkIsNotResumedThrough) {
    Seen seen{{}, std::this_thread::get_id(), 1, {}, 0};
    events.Subscribe(ZOVRELAY_EVENT_PROGRESS, &Seen::Record, &seen);
    std::vector<Download> downloads{Package("slow", "a.bin", 4 << 20)};
    ASSERT_EQ(Run(downloads), kCancelled);
    fs::rename(Path("packages/.a.bin.part"), Path("outside"));
    fs::create_symlink(Path("outside"), Path("packages/.a.bin.part"));
    const std::string before = ReadFile(Path("outside"));
    seen.cancelWhen = 0;
    EXPECT_EQ(Run(downloads), kSuccess);
    EXPECT_EQ(downloads[0].status, kSuccess) << downloads[0].reason;
    EXPECT_EQ(downloads[0].resumed, 0u);
    EXPECT_EQ(ReadFile(Path("outside")), before);
}

// Transfers run at once and share one budget: 2 MiB at 1024 KiB/s takes about two seconds.
TEST_F(Network, BandwidthBudgetCoversAllTransfers) {
    Seen seen{{}, std::this_thread::get_id(), 0, {}, 0};
    events.Subscribe(ZOVRELAY_EVENT_DOWNLOADBEGIN, &Seen::Record, &seen);
    events.Subscribe(ZOVRELAY_EVENT_DOWNLOADEND, &Seen::Record, &seen);
    std::vector<Download> downloads;
    for (const char* name : {"a.bin", "b.bin", "c.bin", "d.bin"}) downloads.push_back(Package("ok", name, 512 << 10));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Run(downloads, 1024), kSuccess);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 1.5);
    EXPECT_LT(seconds, 6.0);
    ASSERT_EQ(seen.events.size(), 8u);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(seen.events[i].type, ZOVRELAY_EVENT_DOWNLOADBEGIN) << "not concurrent";
}

// A package the serving source cannot deliver comes from the next source listing it identically;
// a source that lists other versions is passed over.
TEST_F(Network, FailoverTakesAPackageFromTheNextSourceThatListsItTheSame) {
    const std::string good = MakeSource("good"), broken = Path("broken"), other = MakeSource("other", 7);
    fs::copy(good, broken, fs::copy_options::recursive);
    const Component first = ParseCatalog(ReadFile(good + "/server.ini"))->components.at(0);
    fs::remove(broken + "/" + first.path);
    Context context(Path("repo"));
    Recorder recorder(context.handle);
    EXPECT_EQ(Call(ZOVRELAY_Duplicate, context.handle, Request().Source(broken).Source(other).Source(good).Product(kProduct0)).status,
              kSuccess);
    EXPECT_EQ(CheckRepository(Path("repo")), Lines());
    EXPECT_EQ(Versions(Held(context.handle)), 3u);
    EXPECT_EQ(recorder.Count(ZOVRELAY_EVENT_DOWNLOADBEGIN), 4u);  // the missing one twice
}

// A source that trickles (2 bytes/s) is cut at the floor rate, whatever size it announces: a
// package after its attempts, a catalog at its deadline.
TEST_F(Network, ATricklingSourceIsCutAtTheFloorRate) {
    settings.floorRate = 100, settings.floorWindow = 1;
    std::vector<Download> downloads{Package("trickle", "huge.bin", 4000)};
    downloads[0].size = uint64_t(1) << 40;
    EXPECT_EQ(Run(downloads), kSuccess);
    EXPECT_EQ(downloads[0].status, kConnectionFailed);
    EXPECT_NE(downloads[0].reason.find("timed out"), std::string::npos) << downloads[0].reason;

    WriteFile(Path("www/source.ini"), std::string(4000, ';') + "\n"), WriteFile(Path("www/server.ini"), "; none\n");
    Options options;
    options.lowSpeedLimit = 100, options.lowSpeedTime = 1, options.catalogTimeout = 2;
    const std::wstring url = Wide("http://127.0.0.1:" + std::to_string(port) + "/trickle/");
    const ZOVRELAY_Source source{const_cast<wchar_t*>(url.c_str()), {0, 0}, nullptr};
    LoadedSource loaded;
    EXPECT_EQ(LoadSource(&source, 1, options, loaded), kConnectionFailed);
}

// A source without source.ini (a vendor's) is remembered, and then asked for its server.ini alone.
TEST_F(Network, AVendorSourceIsAskedForItsServerIniAlone) {
    WriteFile(Path("www/server.ini"), "[PATTERN]\n[ENGINE]\n[All_Product]\n");
    const std::wstring url = Wide("http://127.0.0.1:" + std::to_string(port) + "/ok/");
    const ZOVRELAY_Source source{const_cast<wchar_t*>(url.c_str()), {0, 0}, nullptr};
    VendorSources vendors;
    for (const Lines& asked : {Lines{"/ok/server.ini -", "/ok/source.ini -"}, Lines{"/ok/server.ini -"}}) {
        fs::remove(Path("log"));
        LoadedSource loaded;
        EXPECT_EQ(LoadSource(&source, 1, Options(), loaded, nullptr, nullptr, nullptr, &vendors), kSuccess);
        EXPECT_EQ(Log(), asked);
        vendors = VendorSources::Parse(vendors.Format());  // as the next night reads it
    }
}

}  // namespace
}  // namespace relaytest
