// Mirroring 256 MiB in 64 packages from a loopback HTTP server, against `curl` fetching the same
// files to disk plus `sha256sum` of them, from the same server. The sendfile server keeps the
// server out of the measure; python's http.server is measured beside it to show why.
#include "harness.h"

#include <filesystem>

using namespace bench;

int main() {
    return Main("http", [](Session& session) {
        const std::string source = session.root() + "/source";
        const uint64_t bytes = MakeSource(source, 64, 4u << 20);
        const double mib = bytes / kMiB;

        const auto measure = [&](const std::string& server, const std::string& label) {
            std::vector<std::string> fetch = {"curl", "-sSf"}, digest = {"sha256sum"};
            for (const std::string& path : PackagePaths(source)) {
                const std::string copy = session.root() + "/copies/" + std::filesystem::path(path).filename().string();
                fetch.insert(fetch.end(), {"-o", copy, server + "/" + path});
                digest.push_back(copy);
            }
            const auto relay = [&] {
                const std::string repository = session.Directory("repository");
                ZOVRELAY_Status status = 0;
                const double seconds = Seconds([&] { status = Mirror(repository, server, source + "/server.ini"); });
                Check(status > 0, "mirroring failed: " + std::to_string(status));
                return seconds;
            };
            const auto peer = [&] {
                session.Directory("copies");
                return Seconds([&] { Check(Run(fetch) && Run(digest), "curl or sha256sum failed"); });
            };
            double mirrored = 0, fetched = 0;
            MedianPair(relay, peer, mirrored, fetched);
            const double ratio = fetched / mirrored;  // of throughputs
            Report("mirror " + std::to_string(int(mib)) + " MiB in 64 packages, " + label, mib / mirrored,
                   "curl + sha256sum", mib / fetched, ratio, ">= 0.8", ratio >= 0.8, "MiB/s");
        };

        {
            const FileServer server(source);
            measure("http://127.0.0.1:" + std::to_string(server.port()), "HTTP (sendfile)");
        }
        const uint16_t port = FreePort();
        const Process python({"python3", "-m", "http.server", std::to_string(port), "--bind", "127.0.0.1",
                              "--directory", source},
                             port);
        measure("http://127.0.0.1:" + std::to_string(port), "HTTP (python)");
    });
}
