// Choosing the source that serves an operation: the first, in the order given, whose catalog loads.
#ifndef LOCALRELAY_SOURCES_H
#define LOCALRELAY_SOURCES_H

#include "catalog.h"
#include "options.h"
#include "runlog.h"
#include "transfer.h"

#include <string>

namespace localrelay {

struct LoadedSource {
    std::string address;
    TransferSettings settings;  // the context's limits with this source's proxy
    Catalog catalog;
    std::string catalogName;  // the file it came from: source.ini of a repository, else server.ini
};

// Sources with a null address are skipped. kInvalidArgument for a string that names no
// characters; otherwise, when no catalog loads, kInvalidCatalog if some source answered with a
// malformed one, else the first source's failure (the one the administrator looks at first),
// with its address and reason as the failure's detail. Each source tried goes into `log`.
// A source's catalog is its source.ini when it has one that parses (a repository written by this
// relay), otherwise its server.ini.
ZOVRELAY_Status LoadSource(const ZOVRELAY_Source* sources, size_t count, const Options& options, LoadedSource& loaded,
                           RunLog* log = nullptr);

// The serving source's catalog read again (from the same file): after a package's byte range no
// longer matched, the source's archives may have been replaced since it was first read.
std::optional<Catalog> ReloadCatalog(const LoadedSource& source);

}  // namespace localrelay

#endif
