// Peak resident memory of a mirror does not grow with the package: each mirror runs in a child
// process of its own, whose peak resident set wait4 reports.
#include "harness.h"

#include <cstring>

using namespace bench;

namespace {

double PeakMiB(const std::string& repository, const std::string& source, const std::string& catalog) {
    std::vector<double> peaks;
    for (int run = 0; run < kRuns; ++run) {
        rusage usage{};
        Check(Run({"/proc/self/exe", "--mirror", repository, source, catalog}, &usage), "mirroring failed");
        peaks.push_back(usage.ru_maxrss / 1024.0);
        Run({"rm", "-rf", repository});
    }
    return Median(peaks);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--mirror") == 0) {
        ZOVRELAY_Startup(nullptr);
        return Mirror(argv[2], argv[3], argv[4]) > 0 ? 0 : 1;
    }
    return Main("memory", [](Session& session) {
        const std::string small = session.root() + "/small", large = session.root() + "/large";
        MakeSource(small, 1, 16u << 20);
        MakeSource(large, 1, 1u << 30);
        const std::string repository = session.root() + "/repository";
        const FileServer server(session.root());
        const std::string http = "http://127.0.0.1:" + std::to_string(server.port());
        for (const bool overHttp : {false, true}) {
            const double smallPeak = PeakMiB(repository, overHttp ? http + "/small" : small, small + "/server.ini");
            const double largePeak = PeakMiB(repository, overHttp ? http + "/large" : large, large + "/server.ini");
            Report(std::string("peak RSS, 1 GiB package, ") + (overHttp ? "HTTP" : "directory"), largePeak,
                   "16 MiB package", smallPeak, largePeak / smallPeak, "< 64 MiB", largePeak < 64, "MiB");
        }
    });
}
