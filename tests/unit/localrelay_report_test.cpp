// The run report past RunLog::kListed packages, and its temporaries: a killed run's are removed,
// a name planted beside them never stops the report.
#include "localrelay_fixture.h"
#include "run/report.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

namespace {

using namespace localrelay;
using namespace relaytest;

class LocalRelayReport : public RelayTest {};

TEST_F(LocalRelayReport, ListsTheFirstPackagesAndCountsEveryOne) {
    RunLog log;
    for (size_t i = 0; i < 2500; ++i) {
        const ZOVRELAY_Status status = i % 500 == 7 ? kHttpError : kSuccess;  // 5 failed, 2 of them listed
        log.Add(PackageOutcome{"p/" + std::to_string(i) + ".zip", "c3t" + std::to_string(i) + "l1p-1r-1o-1", "1.0.0.0",
                               "http://h", "download", 10, 10, 0, status, status > 0 ? "" : "HTTP 404"});
    }
    log.Failed(2000, kNoSpace, "not stored");              // counted, not listed
    log.Failed(7, kNoSpace, "not stored");                 // failed already: stays as it was
    log.NotStored("c3t2100l1p-1r-1o-1", kNoSpace, "x");   // counted, not listed
    const int root = ::open(this->root.c_str(), O_RDONLY | O_DIRECTORY);
    const std::string stale = ".report.json.1234-0.tmp", fresh = ".report.json.5678-0.tmp";
    for (const std::string& name : {stale, fresh}) WriteFile(this->root / name, "x");
    const timespec old[2] = {{0, UTIME_OMIT}, {::time(nullptr) - 7200, 0}};
    ASSERT_EQ(::utimensat(root, stale.c_str(), old, 0), 0);
    ::setenv(kMetricsDirectoryVariable, "", 1);
    ASSERT_TRUE(WriteRunReport(root, "/srv/mirror", log, RunSummary{{}, {}, kHttpError, "HTTP 404 for p/7.zip", 0}));
    ::close(root);

    const std::string text = ReadFile(this->root / kReportName);
    const nlohmann::json report = nlohmann::json::parse(text);
    EXPECT_EQ(report["packages"].size(), RunLog::kListed);
    EXPECT_EQ(report["unlisted"], 2500 - RunLog::kListed);
    EXPECT_EQ(report["totals"]["failed"], 7);
    EXPECT_EQ(report["totals"]["downloaded"], 2493);
    EXPECT_EQ(report["packages"][7]["reason"], "HTTP 404");
    EXPECT_LT(text.size(), 400u * RunLog::kListed) << "a line per package listed, none for the others";
    EXPECT_FALSE(fs::exists(this->root / stale)) << "a killed run's temporary";
    EXPECT_TRUE(fs::exists(this->root / fresh)) << "perhaps another writer's, mid-write";
}

}  // namespace
