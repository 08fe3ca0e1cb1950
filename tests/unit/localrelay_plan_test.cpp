// The plan as a pure function: a catalog of three versions, what the repository holds, and the
// options, against every version's action, the bytes, the per-version archives and the prunes.
#include "run/plan.h"

#include <gtest/gtest.h>

namespace localrelay {
namespace {

const std::string kA(64, 'a'), kB(64, 'b'), kC(64, 'c'), kX(64, 'x');

Catalog ThreeVersions() {
    const std::string text = "[PATTERN]\n"
                             "c3t4l1p-1r-1o-1 1.100.1.0 p/1.zip 100 " + kA + "\n"
                             "c3t4l1p-1r-1o-1 2.100.1.0 p/2.zip 200 " + kB + "\n"
                             "c3t4l1p-1r-1o-1 3.100.1.0 p/3.pkg 300 " + kC + "\n"
                             "\n[ENGINE]\n\n[All_Product]\nc1t100l1p-1r-1o-1 1.0.0.0 c3t4l1p-1r-1o-1\n\n";
    return *ParseCatalog(text);
}

struct Case {
    const char* what;
    std::vector<std::pair<int, std::string>> held;  // major version, digest held
    int damaged;                                     // major version whose copy failed; 0: none
    Options options;
    const char* actions;  // per catalog version, oldest first: d download, h held, H heal, s skip, x excluded
    uint64_t bytes;
    std::vector<std::string> versionArchives, pruned, healed;
};

Options With(int64_t maxMerge, int64_t buildPatch = 0, int64_t keepCount = 0, const char* blacklist = nullptr) {
    Options options;
    options.maxMerge = maxMerge;
    options.buildPatch = buildPatch;
    options.keepCount = keepCount;
    if (blacklist != nullptr) options.checkBlacklist = 1, options.blacklist = blacklist;
    return options;
}

TEST(Plan, DecidesEachVersionFromCatalogHeldStateAndOptions) {
    const std::string v1 = "c3t4l1p-1r-1o-1_1.100.1.0.zip", v2 = "c3t4l1p-1r-1o-1_2.100.1.0.zip",
                      v3 = "c3t4l1p-1r-1o-1_3.100.1.0.zip";
    const Case cases[] = {
        {"first mirror keeps the newest", {}, 0, With(0), "ssd", 300, {}, {}, {}},
        {"nothing new", {{3, kC}}, 0, With(0), "ssh", 0, {}, {}, {}},
        {"republished under the same version", {{3, kX}}, 0, With(0), "ssd", 300, {}, {}, {}},
        {"a damaged copy is healed", {{3, kC}}, 3, With(0), "ssH", 300, {}, {}, {}},
        {"maxmerge adds the older versions", {{3, kC}}, 0, With(3), "ddh", 300, {}, {}, {}},
        {"buildpatch writes an archive per download", {}, 0, With(2, 1), "sdd", 500, {v3, v2}, {}, {}},
        {"keepcount prunes the oldest archives", {{1, kA}, {2, kB}}, 0, With(3, 1, 1), "hhd", 300, {v3}, {v1, v2}, {}},
        {"the file type rule excludes", {}, 0, With(3, 0, 0, ".PKG"), "ddx", 300, {}, {}, {}},
        {"a per-version archive that differs is healed", {{2, kB}}, 0, With(2, 1), "shd", 300, {v3}, {}, {v2}},
    };
    const Catalog catalog = ThreeVersions();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Selection selection;
        ZOVRELAY_Product product{{1, 100, 1, -1, -1, -1, {0, 0, 0, 0}}, nullptr, 0};
        ASSERT_GT(Select(catalog, &product, 1, selection), 0);
        const Identity identity = catalog.components[0].identity;
        ServedCatalog served;
        HeldView view;
        if (!c.held.empty()) {
            Manifest& manifest = served[identity].manifest;
            manifest.identity = identity;
            for (auto it = c.held.rbegin(); it != c.held.rend(); ++it) {
                const Component& component = catalog.components[size_t(it->first - 1)];
                manifest.versions.push_back(HeldVersion{component.version, component.path, component.size, it->second});
                if (c.options.buildPatch != 0 && c.healed.empty())
                    view.versionArchives[identity].push_back(VersionArchive{
                        component.version, VersionArchiveName(identity, component.version), component.size, {}, it->second});
            }
        }
        if (!c.healed.empty())  // the held version's per-version archive holds other bytes
            view.versionArchives[identity].push_back(
                VersionArchive{catalog.components[1].version, c.healed[0], 200, {}, kX});
        if (c.damaged != 0) view.damaged[identity] = {catalog.components[size_t(c.damaged - 1)].version};
        view.served = &served;
        const Plan plan = MakePlan(catalog, selection, view, c.options);
        ASSERT_EQ(plan.components.size(), 1u);
        std::string actions(catalog.components.size(), '-');
        for (const PlannedVersion& version : plan.components[0].versions)
            actions[size_t(version.component - catalog.components.data())] =
                "dhHsx"[version.action == Action::kDownload ? 0 : version.action == Action::kHeld ? 1
                        : version.action == Action::kHeal   ? 2 : version.action == Action::kSkip ? 3 : 4];
        EXPECT_EQ(actions, c.actions);
        EXPECT_EQ(plan.bytes, c.bytes);
        EXPECT_EQ(plan.components[0].versionArchives, c.versionArchives);
        EXPECT_EQ(plan.components[0].pruned, c.pruned);
        EXPECT_EQ(plan.healedArchives, c.healed);
        // What packages/ holds afterwards never names what the run prunes.
        for (const std::string& name : c.pruned) EXPECT_EQ(plan.files.count(name), 0u);
    }
}

}  // namespace
}  // namespace localrelay
