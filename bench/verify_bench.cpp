// What a nightly run that finds nothing new costs on a large repository, beside what reading every
// held byte back would cost. The relay reads an archive back in full only when it changed since its
// last verification, or a week after it; the peer is `sha256sum` of every merged archive, which is
// what verifying everything on every run would at least take. BENCH_VERIFY_GIB sets the size
// (default 1); the repository takes that much disk again beside the source.
#include "harness.h"

#include <cstdlib>
#include <filesystem>

using namespace bench;
namespace fs = std::filesystem;

int main() {
    return Main("verify", [](Session& session) {
        const char* setting = std::getenv("BENCH_VERIFY_GIB");
        const uint64_t gib = setting != nullptr && std::atoi(setting) > 0 ? uint64_t(std::atoi(setting)) : 1;
        const unsigned components = unsigned(64 * gib);  // 16 MiB packages
        const std::string source = session.root() + "/source", repository = session.root() + "/repository";
        const uint64_t bytes = MakeSource(source, components, 16u << 20);
        // The mirror records what it wrote as verified: the nightly state holds from the next run on.
        Check(Mirror(repository, source, source + "/server.ini") > 0, "the first mirror failed");

        std::vector<std::string> digest = {"sha256sum"};
        for (const auto& entry : fs::directory_iterator(repository + "/packages"))
            if (entry.path().filename().string().find("_merged.zip") != std::string::npos) digest.push_back(entry.path());
        const auto relay = [&] {
            ZOVRELAY_Status status = 0;
            const double seconds = Seconds([&] { status = Mirror(repository, source, source + "/server.ini"); });
            Check(status > 0, "a no-change mirror failed");
            return seconds;
        };
        const auto peer = [&] { return Seconds([&] { Check(Run(digest), "sha256sum failed"); }); };
        double nightly = 0, everything = 0;
        MedianPair(relay, peer, nightly, everything);
        const std::string size = std::to_string(int(bytes / kMiB)) + " MiB in " + std::to_string(components) + " archives";
        Report("no-change mirror, " + size, nightly, "sha256sum of every archive", everything, nightly / everything,
               "<= 0.1", nightly <= 0.1 * everything);

        // The weekly (or after-change) cost: every archive read back, as when the record is gone.
        const auto full = [&] {
            fs::remove(repository + "/.verified");
            return relay();
        };
        double verifying = 0, again = 0;
        MedianPair(full, peer, verifying, again);
        Report("mirror verifying everything, " + size, verifying, "sha256sum of every archive", again,
               verifying / again, "<= 1.5", verifying <= 1.5 * again);
    });
}
