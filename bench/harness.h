// What every benchmark shares: a temporary directory, sample sources, timing, child processes,
// a loopback file server, mirroring through the relay's C interface, and the report line.
#ifndef BENCH_HARNESS_H
#define BENCH_HARNESS_H

#include "zovrelay.h"

#include <sys/resource.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace bench {

constexpr int kRuns = 5;
constexpr double kMiB = 1024.0 * 1024.0;

// Starts the relay and creates a temporary directory; removes it, and the relay's semaphore file
// if this run created it, when the benchmark ends.
class Session {
public:
    explicit Session(const std::string& name);
    ~Session();
    const std::string& root() const { return root_; }
    // A fresh, empty directory under the root.
    std::string Directory(const std::string& name) const;

private:
    std::string root_;
    bool semaphoreExisted_;
};

// Writes a sample source with tools/makesource; returns its total package bytes. A larger seed
// makes a newer release of the same components.
uint64_t MakeSource(const std::string& directory, unsigned components, uint64_t size, unsigned seed = 1);
// The package files of a source (all but its catalog), as paths relative to it.
std::vector<std::string> PackagePaths(const std::string& directory);

double Seconds(const std::function<void()>& work);
double Median(std::vector<double> values);
// Median over kRuns of each; the two run in turn, so that both see the same machine, after one
// untimed run of each to warm the page cache. Dirty pages are written back before each run.
void MedianPair(const std::function<double()>& first, const std::function<double()>& second, double& firstMedian,
                double& secondMedian);

// Runs a command with its output discarded; false unless it exits 0. `usage`, when given,
// receives that child's own resource use.
bool Run(const std::vector<std::string>& argv, rusage* usage = nullptr);
void Check(bool ok, const std::string& what);  // throws, ending the benchmark through Main, when !ok

// Runs a benchmark's body in a session; a failed Check ends it with status 1 after cleaning up.
int Main(const std::string& name, const std::function<void(Session&)>& body);

// A child process that serves on a loopback port until destroyed.
class Process {
public:
    Process(const std::vector<std::string>& argv, uint16_t port);
    ~Process();

private:
    int pid_ = -1;
};

uint16_t FreePort();

// nginx serving the files under `root` on a free loopback port (ETag, If-None-Match: a catalog
// unchanged since the last fetch is a 304), its configuration and logs in `directory`.
class Nginx {
public:
    Nginx(const std::string& root, const std::string& directory);
    uint16_t port() const { return port_; }

private:
    uint16_t port_;
    std::unique_ptr<Process> process_;
};

// HTTP/1.1 GET of the files under a directory, with sendfile, one thread per connection: fast
// enough that the client side is what gets measured.
class FileServer {
public:
    explicit FileServer(std::string root);
    ~FileServer();
    uint16_t port() const { return port_; }

private:
    void Serve(int connection) const;
    std::string root_;
    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<int> active_{0};
    std::thread acceptor_;
};

// Product c1t100 of `source` through ZOVRELAY_Duplicate (`mirror`) or ZOVRELAY_GetInformation,
// every package excluded by its file type, so that a mirror plans and downloads nothing.
ZOVRELAY_Status PlanProduct(const std::string& repository, const std::string& source, bool mirror);

// Mirrors every product of the catalog at `catalog` (a local server.ini) from `source` into a new
// repository at `repository`, through ZOVRELAY_Duplicate.
ZOVRELAY_Status Mirror(const std::string& repository, const std::string& source, const std::string& catalog,
                       int64_t maxBandwidth = 0, int64_t httpsLevel = 2);
// The same with the products given (as a mirror job knows them), not read from a catalog.
ZOVRELAY_Status Mirror(const std::string& repository, const std::string& source,
                       std::vector<ZOVRELAY_Product> products, int64_t maxBandwidth = 0, int64_t httpsLevel = 2);
// Every product that the catalog at `catalog` (a local server.ini) lists.
std::vector<ZOVRELAY_Product> CatalogProducts(const std::string& catalog);

// Prints one figure beside its peer's, the ratio, and whether the target is met.
void Report(const std::string& figure, double value, const std::string& peerName, double peer, double ratio,
            const std::string& target, bool met, const char* unit = "s");

}  // namespace bench

#endif
