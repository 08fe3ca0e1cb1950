// Many small packages: 2,000 of 32 KiB, mirrored from a loopback HTTP server against
// `curl --parallel` (8 at a time) fetching the same files plus `sha256sum` of them, and from a
// directory source against `cp` plus `sha256sum`. Here the cost per package dominates, not bytes.
#include "harness.h"

#include <filesystem>

using namespace bench;

int main() {
    return Main("small", [](Session& session) {
        constexpr unsigned kPackages = 2000;
        const std::string source = session.root() + "/source";
        MakeSource(source, kPackages, 32u << 10);
        const std::vector<std::string> paths = PackagePaths(source);

        const auto relay = [&](const std::string& from) {
            return [&session, &source, from] {
                const std::string repository = session.Directory("repository");
                ZOVRELAY_Status status = 0;
                const double seconds = Seconds([&] { status = Mirror(repository, from, source + "/server.ini"); });
                Check(status > 0, "mirroring failed: " + std::to_string(status));
                return seconds;
            };
        };
        const auto peer = [&](std::vector<std::string> fetch) {
            std::vector<std::string> digest = {"sha256sum"};
            for (const std::string& path : paths)
                digest.push_back(session.root() + "/copies/" + std::filesystem::path(path).filename().string());
            return [&session, fetch, digest] {
                session.Directory("copies");
                return Seconds([&] { Check(Run(fetch) && Run(digest), "the peer failed"); });
            };
        };

        {
            const FileServer server(source);
            const std::string url = "http://127.0.0.1:" + std::to_string(server.port());
            std::vector<std::string> fetch = {"curl", "-sSf", "--parallel", "--parallel-max", "8"};
            for (const std::string& path : paths)
                fetch.insert(fetch.end(), {"-o", session.root() + "/copies/" + std::filesystem::path(path).filename().string(),
                                           url + "/" + path});
            double mirrored = 0, fetched = 0;
            MedianPair(relay(url), peer(fetch), mirrored, fetched);
            Report("2,000 x 32 KiB over loopback HTTP", mirrored, "curl --parallel 8 + sha256sum", fetched,
                   mirrored / fetched, "<= 1.0", mirrored <= fetched);
        }
        std::vector<std::string> copy = {"cp"};
        for (const std::string& path : paths) copy.push_back(source + "/" + path);
        copy.push_back(session.root() + "/copies/");
        double mirrored = 0, copied = 0;
        MedianPair(relay(source), peer(copy), mirrored, copied);
        Report("2,000 x 32 KiB from a directory", mirrored, "cp + sha256sum", copied, mirrored / copied, "<= 1.0",
               mirrored <= copied);
    });
}
