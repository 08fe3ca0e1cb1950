// The options of a context: one table of numbers, keys and kinds, and the values set through it.
#ifndef LOCALRELAY_OPTIONS_H
#define LOCALRELAY_OPTIONS_H

#include "zovrelay.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace localrelay {

struct Options {
    int64_t maxBandwidth = 0;  // KiB/s; 0 or less: no limit
    int64_t buildPatch = 0;    // non-zero: keep per-version archives
    int64_t maxMerge = 0;      // versions per merged archive; 0: 1
    int64_t diffCount = 0;     // recorded only: no binary differences are built
    int64_t keepCount = 0;     // per-version archives per component; 0: no limit
    int64_t httpsLevel = 2;    // 0 none, 1 peer, anything else peer and host
    int64_t checkBlacklist = 0;
    // Time a source may take: an HTTP transfer receiving less than lowSpeedLimit bytes/s over
    // lowSpeedTime seconds is cut; a source's catalogs may take catalogTimeout seconds in all.
    int64_t lowSpeedLimit = 1024;
    int64_t lowSpeedTime = 60;
    int64_t catalogTimeout = 300;
    std::string blacklist;  // as given: comma-separated extensions

    size_t VersionsKept() const { return maxMerge <= 0 ? 1 : static_cast<size_t>(maxMerge); }
};

// kInvalidArgument for an unknown number, a number of the other kind, or a negative count;
// the option then keeps its value.
ZOVRELAY_Status SetNumberOption(Options& options, int option, int64_t value);
ZOVRELAY_Status SetTextOption(Options& options, int option, const std::string& value);

// Whether the package at `path` is excluded from mirroring by the file-type blacklist.
bool IsBlacklisted(const Options& options, const std::string& path);

}  // namespace localrelay

#endif
