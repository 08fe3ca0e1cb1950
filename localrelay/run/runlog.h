// What one mirroring run did, package by package. The transfer and repository layers fill it in as
// the run goes; the run report and the metrics file are written from it when the run ends.
#ifndef LOCALRELAY_RUNLOG_H
#define LOCALRELAY_RUNLOG_H

#include "zovrelay.h"

#include <cstdint>
#include <string>
#include <vector>

namespace localrelay {

struct PackageOutcome {
    std::string path;      // the package's path in the catalog
    std::string identity;  // "c3t4l1p-1r-1o-1"
    std::string version;   // "16.1230.0.0"
    std::string source;    // the address that served it, or the last one tried
    std::string action;    // "download", "heal" (a held copy no longer verified), "skip", "verify"
    uint64_t size = 0;     // the catalog's size
    uint64_t bytes = 0;    // bytes received from sources for it in this run
    double seconds = 0;
    ZOVRELAY_Status status = 1;
    std::string reason;    // why it failed; empty on success
};

struct SourceAttempt {
    std::string address;
    ZOVRELAY_Status status = 1;  // 1: its catalog loaded
    std::string reason;          // why it did not serve
    std::string proxy;           // "proxy host:port" it was reached through; empty: none
};

// A run over a large catalog acts on hundreds of thousands of packages: the first kListed are
// kept in full for the report, the rest only as much as their totals need, so that neither the
// memory nor report.json grows with a line per package.
struct RunLog {
    static constexpr size_t kListed = 1000;

    struct Counted {  // a package past kListed
        std::string identity;
        bool download;  // action "download"
        ZOVRELAY_Status status;
        uint64_t bytes;
    };

    std::vector<SourceAttempt> sourcesTried;  // in the order tried
    std::string servedBy;                     // the source whose catalog served the run
    std::vector<PackageOutcome> packages;     // the first kListed the run acted on
    std::vector<Counted> counted;             // the others
    size_t held = 0;                          // packages of the plan held already: nothing to do

    // Its number, for Failed.
    size_t Add(PackageOutcome outcome);
    // Package `number` failed after all (it was not stored), unless it had failed already.
    void Failed(size_t number, ZOVRELAY_Status status, const std::string& reason);
    // Every package downloaded for `identity` (FormatIdentity) that had not failed: not stored.
    void NotStored(const std::string& identity, ZOVRELAY_Status status, const std::string& reason);
    size_t size() const { return packages.size() + counted.size(); }
};

}  // namespace localrelay

#endif
