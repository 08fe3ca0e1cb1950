// With maxbandwidth 2048 KiB/s a 10 MiB package takes 5 s, from a directory and over HTTP.
#include "harness.h"

using namespace bench;

int main() {
    return Main("bandwidth", [](Session& session) {
        const std::string source = session.root() + "/source";
        const uint64_t bytes = MakeSource(source, 1, 10u << 20);
        const double expected = bytes / (2048.0 * 1024.0);
        const FileServer server(source);
        const std::string http = "http://127.0.0.1:" + std::to_string(server.port());
        for (const std::string& from : {source, http}) {
            std::vector<double> times;
            for (int run = 0; run < kRuns; ++run) {
                const std::string repository = session.Directory("repository");
                ZOVRELAY_Status status = 0;
                times.push_back(Seconds([&] { status = Mirror(repository, from, source + "/server.ini", 2048); }));
                Check(status > 0, "mirroring failed: " + std::to_string(status));
            }
            const double seconds = Median(times), ratio = seconds / expected;
            Report(std::string("10 MiB at 2048 KiB/s, ") + (from == source ? "directory" : "HTTP"), seconds,
                   "size / limit", expected, ratio, "5 s +-10%", ratio >= 0.9 && ratio <= 1.1);
        }
    });
}
