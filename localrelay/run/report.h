// What a mirroring operation leaves behind for its administrator: report.json in the repository's
// root (the run in full, for people and scripts) and a metrics file in the Prometheus text format
// for node_exporter's textfile collector. Both are replaced whole by rename; docs/relay-report.md
// describes their contents.
#ifndef LOCALRELAY_REPORT_H
#define LOCALRELAY_REPORT_H

#include "run/runlog.h"

#include <chrono>
#include <string>

namespace localrelay {

inline constexpr const char* kReportName = "report.json";
// The directory the metrics file goes to; unset or empty: the repository's root.
inline constexpr const char* kMetricsDirectoryVariable = "UPDATE_METRICS_DIR";

struct RunSummary {
    std::chrono::system_clock::time_point started, ended;
    ZOVRELAY_Status status = 1;
    std::string message;        // the status message the caller receives
    size_t heldVersions = 0;    // package versions the repository holds after the run
};

// Writes both files; false when either could not be written (the operation's status stays).
// `root` is the repository's directory as the context opened it (never the path again: it may
// have been swapped for a link since), `repository` its absolute path, for the report's text.
bool WriteRunReport(int root, const std::string& repository, const RunLog& log, const RunSummary& summary) noexcept;

// The file name the metrics of `repository` take in a directory shared by several repositories:
// "update_srv_mirror.prom" for /srv/mirror.
std::string MetricsFileName(const std::string& repository);

}  // namespace localrelay

#endif
