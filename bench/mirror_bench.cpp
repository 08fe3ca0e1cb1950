// Mirroring 256 MiB in 64 packages from a directory source, against `cp` of the same files plus
// `sha256sum` of the copies: the relay checks every package and stores it in its archive.
#include "harness.h"

#include <filesystem>

using namespace bench;

int main() {
    return Main("mirror", [](Session& session) {
        const std::string source = session.root() + "/source";
        const uint64_t bytes = MakeSource(source, 64, 4u << 20);
        std::vector<std::string> copy = {"cp"}, digest = {"sha256sum"};
        for (const std::string& path : PackagePaths(source)) {
            copy.push_back(source + "/" + path);
            digest.push_back(session.root() + "/copies/" + std::filesystem::path(path).filename().string());
        }
        copy.push_back(session.root() + "/copies/");

        const auto relay = [&] {
            const std::string repository = session.Directory("repository");
            ZOVRELAY_Status status = 0;
            const double seconds = Seconds([&] { status = Mirror(repository, source, source + "/server.ini"); });
            Check(status > 0, "mirroring failed: " + std::to_string(status));
            return seconds;
        };
        const auto peer = [&] {
            session.Directory("copies");
            return Seconds([&] { Check(Run(copy) && Run(digest), "cp or sha256sum failed"); });
        };
        double mirrored = 0, copied = 0;
        MedianPair(relay, peer, mirrored, copied);
        Report("mirror " + std::to_string(int(bytes / kMiB)) + " MiB in 64 packages, directory", mirrored,
               "cp + sha256sum", copied, mirrored / copied, "<= 1.5", mirrored <= 1.5 * copied);
    });
}
