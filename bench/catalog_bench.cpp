// Catalogs of any size: sources of 350,000 and 1,000,000 components (one product naming them all,
// lines shaped as a vendor's), listed (ZOVRELAY_GetInformation) and planned for a mirror whose
// packages the blacklist excludes, each in a child process of its own. Printed: the time, and the
// peak resident memory over the relay's baseline (the same operation on a catalog of 10
// components) beside the catalog's size.
#include "harness.h"

#include <cstdio>
#include <cstring>
#include <fstream>

using namespace bench;

namespace {

uint64_t WriteCatalog(const std::string& directory, unsigned components) {
    {
        std::ofstream out(directory + "/server.ini", std::ios::binary);
        const std::string sha = "50b88f6c3e1d0a94c9f27e1b5d8a6c3f0e2b4d6a8c0e2f4a6b8d0c2e4f6a8b0c";
        out << "[PATTERN]\n";
        for (unsigned i = 0; i < components; ++i) {
            const std::string identity = "c3t" + std::to_string(i + 10) + "l1p-1r-1o-1";
            out << identity << " 1.100.1.0 pattern/" << identity << "-1.100.1.0.zip " << 400000 + i % 1000 << " " << sha << "\n";
        }
        out << "\n[ENGINE]\n\n[All_Product]\nc1t100l1p-1r-1o-1 10.0.0.0";
        for (unsigned i = 0; i < components; ++i) out << " c3t" << i + 10 << "l1p-1r-1o-1";
        out << "\n\n";
    }
    std::ifstream in(directory + "/server.ini", std::ios::binary | std::ios::ate);
    return uint64_t(in.tellg());
}

// In the child: one operation through the C interface.
int Operate(const std::string& operation, const std::string& repository, const std::string& source) {
    ::setenv("UPDATE_MAX_CATALOG_MIB", "1024", 1);
    ZOVRELAY_Startup(nullptr);
    return PlanProduct(repository, source, operation == "plan") > 0 ? 0 : 1;
}

struct Figures {
    double seconds, peakMiB;
};

Figures Measure(Session& session, const std::string& operation, const std::string& source) {
    const std::string repository = session.Directory("repository");
    rusage usage{};
    bool ok = false;
    const double seconds = Seconds([&] { ok = Run({"/proc/self/exe", "--operate", operation, repository, source}, &usage); });
    Check(ok, operation + " failed on " + source);
    return {seconds, usage.ru_maxrss / 1024.0};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--operate") == 0) return Operate(argv[2], argv[3], argv[4]);
    return Main("catalog", [](Session& session) {
        const std::string tiny = session.Directory("tiny");
        WriteCatalog(tiny, 10);
        double perComponent[2] = {};
        for (const unsigned components : {350000u, 1000000u}) {
            const std::string source = session.Directory("source" + std::to_string(components));
            const double catalogMiB = WriteCatalog(source, components) / kMiB;
            for (const std::string operation : {"list", "plan"}) {
                const Figures baseline = Measure(session, operation, tiny);
                const Figures large = Measure(session, operation, source);
                const double over = large.peakMiB - baseline.peakMiB;
                std::printf("%s %u components (%.1f MiB catalog): %.2f s, peak RSS %.1f MiB (baseline %.1f MiB)\n",
                            operation.c_str(), components, catalogMiB, large.seconds, large.peakMiB, baseline.peakMiB);
                Report(operation + " peak RSS over baseline, " + std::to_string(components / 1000) + "k components", over,
                       "catalog size", catalogMiB, over / catalogMiB, "<= 2.0x the catalog", over / catalogMiB <= 2.0, "MiB");
                if (operation == "plan") perComponent[components == 1000000u] = large.seconds / components;
            }
        }
        const double ratio = perComponent[1] / perComponent[0];
        Report("plan time per component, 1M vs 350k", perComponent[1] * 1e6, "at 350k", perComponent[0] * 1e6, ratio,
               "<= 1.5 (linear)", ratio <= 1.5, "us");
    });
}
