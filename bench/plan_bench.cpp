// Listing and planning over large catalogs: a source of 50,000 and 500,000 components in one
// product, listed (ZOVRELAY_GetInformation) and planned for a mirror whose packages the
// blacklist excludes, so that nothing is downloaded. The time per component must stay flat.
#include "harness.h"

#include <cstdio>
#include <fstream>

using namespace bench;

namespace {

void WriteCatalog(const std::string& directory, unsigned components) {
    std::ofstream out(directory + "/server.ini", std::ios::binary);
    const std::string sha(64, 'a');
    out << "[PATTERN]\n";
    for (unsigned i = 0; i < components; ++i)
        out << "c3t" << i << "l1p-1r-1o-1 1.0.0.0 p/" << i << ".zip 10 " << sha << "\n";
    out << "\n[ENGINE]\n\n[All_Product]\nc1t100l1p-1r-1o-1 1.0.0.0";
    for (unsigned i = 0; i < components; ++i) out << " c3t" << i << "l1p-1r-1o-1";
    out << "\n\n";
}

double Timed(const std::string& repository, const std::string& source, bool mirror) {
    ZOVRELAY_Status status = 0;
    const double seconds = Seconds([&] { status = PlanProduct(repository, source, mirror); });
    Check(status > 0, "operation failed: " + std::to_string(status));
    return seconds;
}

}  // namespace

int main() {
    return Main("plan", [](Session& session) {
        double perComponent[2][2] = {};
        const unsigned sizes[] = {50000, 500000};
        for (int s = 0; s < 2; ++s) {
            const std::string source = session.Directory("source" + std::to_string(s));
            WriteCatalog(source, sizes[s]);
            for (int mirror = 0; mirror < 2; ++mirror) {
                const double seconds = Timed(session.Directory("repository"), source, mirror != 0);
                perComponent[s][mirror] = seconds / sizes[s];
                std::printf("%-7s %6u components: %.2f s\n", mirror ? "plan" : "list", sizes[s], seconds);
            }
        }
        for (int mirror = 0; mirror < 2; ++mirror) {
            const double ratio = perComponent[1][mirror] / perComponent[0][mirror];
            Report(std::string(mirror ? "plan" : "list") + " time per component, 500k vs 50k", perComponent[1][mirror] * 1e6,
                   "at 50k", perComponent[0][mirror] * 1e6, ratio, "<= 1.5 (linear)", ratio <= 1.5, "us");
        }
    });
}
