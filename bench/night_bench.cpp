// A night with nothing new: the repository holds every component of a source served by nginx on
// loopback, and the run finds nothing to do (the catalog, unchanged, answers 304). It should cost little more than fetching the catalog,
// so the peer is `curl` of the catalog. Also the first night after a mirror beside the next one:
// the archives a mirror wrote must not be read again. BENCH_NIGHT_COMPONENTS lists the sizes
// (default "2000 20000").
#include "harness.h"

#include <cstdlib>
#include <sstream>

using namespace bench;

int main() {
    return Main("night", [](Session& session) {
        const char* setting = std::getenv("BENCH_NIGHT_COMPONENTS");
        std::istringstream sizes(setting != nullptr ? setting : "2000 20000");
        for (unsigned components = 0; sizes >> components;) {
            const std::string source = session.Directory("source");
            MakeSource(source, components, 1024);
            const Nginx server(source, session.Directory("nginx"));
            const std::string address = "http://127.0.0.1:" + std::to_string(server.port());
            const std::vector<ZOVRELAY_Product> products = CatalogProducts(source + "/server.ini");
            const auto night = [&](const std::string& repository) {
                ZOVRELAY_Status status = 0;
                const double seconds = Seconds([&] { status = Mirror(repository, address, products); });
                Check(status > 0, "mirroring failed: " + std::to_string(status));
                return seconds;
            };
            const std::string repository = session.Directory("repository");
            night(repository);  // the mirror itself
            const auto quiet = [&] { return night(repository); };
            const auto curl = [&] {
                return Seconds([&] { Check(Run({"curl", "-sf", "-o", "/dev/null", address + "/server.ini"}), "curl failed"); });
            };
            double relay = 0, peer = 0;
            MedianPair(quiet, curl, relay, peer);
            const std::string held = std::to_string(components) + " held";
            Report("night with nothing new, " + held + ", HTTP", relay, "curl of the catalog", peer, relay / peer, "<= 1.5",
                   relay <= 1.5 * peer);
            const auto firstNight = [&] {
                const std::string fresh = session.Directory("fresh");
                night(fresh);
                return night(fresh);
            };
            const auto laterNight = [&] {  // after the same work in the process, for a fair comparison
                night(session.Directory("fresh"));
                return night(repository);
            };
            double first = 0, next = 0;
            MedianPair(firstNight, laterNight, first, next);
            Report("first night after a mirror, " + held, first, "a later night", next, first / next, "<= 1.2",
                   first <= 1.2 * next);
        }
    });
}
