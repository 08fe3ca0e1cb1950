// A new release of every component of a large repository, against the first mirror of the same
// number of components: storing a component replaces its archive and keeps the catalogs truthful,
// and that must cost the same per component however many the repository holds (it cost a rewrite
// of source.ini per component once, quadratic in the release). BENCH_RELEASE_COMPONENTS sets the
// count (default 2500).
#include "harness.h"

#include <cstdlib>

using namespace bench;

int main() {
    return Main("release", [](Session& session) {
        const char* setting = std::getenv("BENCH_RELEASE_COMPONENTS");
        const unsigned components = setting != nullptr && std::atoi(setting) > 0 ? unsigned(std::atoi(setting)) : 2500;
        const std::string first = session.root() + "/first", second = session.root() + "/second";
        MakeSource(first, components, 4096, 1);
        MakeSource(second, components, 4096, 2);
        const auto timed = [&](const std::string& repository, const std::string& source) {
            ZOVRELAY_Status status = 0;
            const double seconds = Seconds([&] { status = Mirror(repository, source, source + "/server.ini"); });
            Check(status > 0, "mirroring failed: " + std::to_string(status));
            return seconds;
        };
        const auto release = [&] {
            // A copy would be other files, which the run would rightly read back in full first.
            const std::string repository = session.Directory("repository");
            Check(Mirror(repository, first, first + "/server.ini") > 0, "the first release did not mirror");
            return timed(repository, second);
        };
        const auto mirror = [&] { return timed(session.Directory("fresh"), first); };
        double released = 0, mirrored = 0;
        MedianPair(release, mirror, released, mirrored);
        Report("release of " + std::to_string(components) + " components, directory", released, "first mirror", mirrored,
               released / mirrored, "<= 3", released <= 3 * mirrored);
    });
}
