#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace bench {
namespace {

const char kSemaphore[] = "/dev/shm/sem.zovrelay";

// An interrupted benchmark still removes its gigabytes: the handler may only fork and exec.
char interruptedRoot[4096];

void RemoveRootAndDie(int signal) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/rm", "rm", "-rf", interruptedRoot, static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid > 0) waitpid(pid, nullptr, 0);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool Accepts(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    const bool ok = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

// Forks and runs a server with its output discarded; the server dies with this process.
int SpawnServer(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const int pid = fork();
    if (pid == 0) {
        setpgid(0, 0);  // a group of its own, so that nginx's workers end with it
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execvp(args[0], args.data());
        _exit(127);
    }
    Check(pid > 0, "fork failed");
    return pid;
}

// Runs a command with its output discarded, to its end. posix_spawn, not fork:
// a fork marks every page of this process copy-on-write, and the next run measured here would
// pay a fault for each page it writes again.
int Spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Check(failed == 0, "cannot run " + argv[0]);
    return pid;
}

}  // namespace

std::vector<ZOVRELAY_Product> CatalogProducts(const std::string& catalog) {
    std::ifstream in(catalog);
    std::vector<ZOVRELAY_Product> products;
    bool inProducts = false;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            inProducts = line.rfind("[All_Product]", 0) == 0;
            continue;
        }
        ZOVRELAY_Product product{};
        ZOVRELAY_EntityItem& e = product.entity;
        if (inProducts && std::sscanf(line.c_str(), "c%dt%dl%dp%dr%do%d", &e.klass, &e.type, &e.language,
                                      &e.platform, &e.region, &e.oem) == 6)
            products.push_back(product);  // version zero and no components: all of it, newest
    }
    Check(!products.empty(), catalog + " lists no product");
    return products;
}


void Check(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error(what);
}

Session::Session(const std::string& name) : semaphoreExisted_(fs::exists(kSemaphore)) {
    std::string pattern = (fs::temp_directory_path() / ("bench-" + name + "-XXXXXX")).string();
    Check(mkdtemp(pattern.data()) != nullptr, "cannot create a temporary directory");
    root_ = pattern;
    if (root_.size() < sizeof interruptedRoot) {
        std::snprintf(interruptedRoot, sizeof interruptedRoot, "%s", root_.c_str());
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, RemoveRootAndDie);
    }
    Check(ZOVRELAY_Startup(nullptr) > 0, "the relay did not start");
}

Session::~Session() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
    if (!semaphoreExisted_) fs::remove(kSemaphore, ignored);
}

std::string Session::Directory(const std::string& name) const {
    const std::string path = root_ + "/" + name;
    fs::remove_all(path);
    fs::create_directories(path);
    return path;
}

int Main(const std::string& name, const std::function<void(Session&)>& body) {
    try {
        Session session(name);
        body(session);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), failure.what());
        return 1;
    }
}

uint64_t MakeSource(const std::string& directory, unsigned components, uint64_t size, unsigned seed) {
    Check(Run({BENCH_MAKESOURCE, "--products", "1", "--components", std::to_string(components), "--size",
               std::to_string(size), "--seed", std::to_string(seed), directory}),
          "makesource failed for " + directory);
    uint64_t total = 0;
    for (const std::string& path : PackagePaths(directory)) total += fs::file_size(directory + "/" + path);
    return total;
}

std::vector<std::string> PackagePaths(const std::string& directory) {
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        if (entry.is_regular_file() && entry.path().filename() != "server.ini")
            paths.push_back(fs::relative(entry.path(), directory).string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

double Seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void MedianPair(const std::function<double()>& first, const std::function<double()>& second, double& firstMedian,
                double& secondMedian) {
    first();
    second();
    std::vector<double> a, b;
    for (int run = 0; run < kRuns; ++run) {
        // Neither side may pay for the write-back of the other's files.
        sync();
        a.push_back(first());
        sync();
        b.push_back(second());
    }
    firstMedian = Median(a);
    secondMedian = Median(b);
}

bool Run(const std::vector<std::string>& argv, rusage* usage) {
    const int pid = Spawn(argv);
    int status = 0;
    rusage ignored{};
    if (wait4(pid, &status, 0, usage != nullptr ? usage : &ignored) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Process::Process(const std::vector<std::string>& argv, uint16_t port) : pid_(SpawnServer(argv)) {
    bool ended = false;
    for (int attempt = 0; attempt < 1000 && !ended && !Accepts(port); ++attempt) {
        ended = waitpid(pid_, nullptr, WNOHANG) == pid_;
        usleep(10000);
    }
    if (!ended && Accepts(port)) return;
    if (!ended && kill(-pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    Check(false, argv[0] + " never served port " + std::to_string(port));
}

// Asked to end first (nginx's master then ends its workers and collects them), then the whole
// group killed: a master killed alone leaves its workers serving a removed directory.
Process::~Process() {
    bool ended = false;
    if (kill(pid_, SIGTERM) == 0)
        for (int attempt = 0; attempt < 100 && !(ended = waitpid(pid_, nullptr, WNOHANG) == pid_); ++attempt)
            usleep(10000);
    kill(-pid_, SIGKILL);
    if (!ended) waitpid(pid_, nullptr, 0);
}

Nginx::Nginx(const std::string& root, const std::string& directory) : port_(FreePort()) {
    const std::string configuration = directory + "/nginx.conf";
    // As root, the workers would otherwise run as nobody, who cannot enter the session's directory.
    std::ofstream(configuration) << (geteuid() == 0 ? "user root;\n" : "")
                                 << "daemon off;\nworker_processes 1;\npid " << directory << "/nginx.pid;\n"
                                 << "error_log " << directory << "/error.log;\nevents { worker_connections 1024; }\n"
                                 << "http {\n  access_log off;\n  sendfile on;\n  keepalive_requests 100000;\n"
                                 << "  client_body_temp_path " << directory << "/body;\n  proxy_temp_path " << directory
                                 << "/proxy;\n  fastcgi_temp_path " << directory << "/fastcgi;\n  uwsgi_temp_path "
                                 << directory << "/uwsgi;\n  scgi_temp_path " << directory << "/scgi;\n"
                                 << "  server { listen 127.0.0.1:" << port_ << "; root " << root << "; }\n}\n";
    process_ = std::make_unique<Process>(std::vector<std::string>{"nginx", "-c", configuration, "-p", directory}, port_);
}

uint16_t FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    Check(fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "no free loopback port");
    close(fd);
    return ntohs(address.sin_port);
}

FileServer::FileServer(std::string root) : root_(std::move(root)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    Check(listener_ >= 0 && bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              listen(listener_, 64) == 0 &&
              getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "the file server cannot listen");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] {
        for (;;) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;  // shut down
            }
            ++active_;
            std::thread([this, connection] {
                Serve(connection);
                close(connection);
                --active_;
            }).detach();
        }
    });
}

FileServer::~FileServer() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    close(listener_);
    while (active_ > 0) usleep(1000);
}

void FileServer::Serve(int connection) const {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
        const ssize_t got = recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0) return;
        request.append(buffer, size_t(got));
    }
    std::istringstream line(request);
    std::string method, target;
    line >> method >> target;
    const int fd = method == "GET" && target.find("..") == std::string::npos
                       ? open((root_ + target).c_str(), O_RDONLY | O_CLOEXEC)
                       : -1;
    struct stat info {};
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        static const char kMissing[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        send(connection, kMissing, sizeof kMissing - 1, MSG_NOSIGNAL);
        if (fd >= 0) close(fd);
        return;
    }
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(info.st_size) +
                             "\r\nContent-Type: application/octet-stream\r\nConnection: close\r\n\r\n";
    if (send(connection, head.data(), head.size(), MSG_NOSIGNAL) == ssize_t(head.size())) {
        off_t offset = 0;
        while (offset < info.st_size && sendfile(connection, fd, &offset, size_t(info.st_size - offset)) > 0) {
        }
    }
    close(fd);
}

ZOVRELAY_Status Mirror(const std::string& repository, const std::string& source, const std::string& catalog,
                       int64_t maxBandwidth, int64_t httpsLevel) {
    return Mirror(repository, source, CatalogProducts(catalog), maxBandwidth, httpsLevel);
}

ZOVRELAY_Status Mirror(const std::string& repository, const std::string& source,
                       std::vector<ZOVRELAY_Product> products, int64_t maxBandwidth, int64_t httpsLevel) {
    ZOVRELAY_Context* context = nullptr;
    ZOVRELAY_Status status = ZOVRELAY_CreateContext(&context, Wide(repository).c_str());
    if (status <= 0) return status;
    if (maxBandwidth > 0) status = ZOVRELAY_SetOption(context, 0, maxBandwidth);
    if (status > 0 && httpsLevel != 2) status = ZOVRELAY_SetOption(context, 15, httpsLevel);
    std::wstring url = Wide(source);
    ZOVRELAY_Source from{};
    from.url = url.data();
    ZOVRELAY_Information* information = nullptr;
    if (status > 0) status = ZOVRELAY_Duplicate(context, products.data(), products.size(), &from, 1, &information);
    if (information != nullptr) ZOVRELAY_DestroyData(information);
    ZOVRELAY_DestroyContext(context);
    return status;
}

void Report(const std::string& figure, double value, const std::string& peerName, double peer, double ratio,
            const std::string& target, bool met, const char* unit) {
    std::printf("%-46s relay %9.3f %-5s | %-26s %9.3f %-5s | ratio %5.2f | target %-14s %s\n", figure.c_str(), value,
                unit, peerName.c_str(), peer, unit, ratio, target.c_str(), met ? "met" : "MISSED");
    std::fflush(stdout);
}

ZOVRELAY_Status PlanProduct(const std::string& repository, const std::string& source, bool mirror) {
    ZOVRELAY_Context* context = nullptr;
    const std::wstring path(repository.begin(), repository.end()), url(source.begin(), source.end());
    if (ZOVRELAY_CreateContext(&context, path.c_str()) <= 0) return 0;
    ZOVRELAY_SetOption(context, 23, 1);
    ZOVRELAY_SetStringOption(context, 22, L"zip");
    ZOVRELAY_EntityItem product{1, 100, 1, -1, -1, -1, {0, 0, 0, 0}};
    ZOVRELAY_Product request{product, nullptr, 0};
    ZOVRELAY_Source from{const_cast<wchar_t*>(url.c_str()), {0, 0}, nullptr};
    ZOVRELAY_Information* information = nullptr;
    const ZOVRELAY_Status status = mirror ? ZOVRELAY_Duplicate(context, &request, 1, &from, 1, &information)
                                          : ZOVRELAY_GetInformation(context, &request, 1, &from, 1, &information);
    ZOVRELAY_DestroyData(information);
    ZOVRELAY_DestroyContext(context);
    return status;
}

}  // namespace bench
