// Downloading the packages of one operation: every package into its part file in packages/, from
// one shared queue, several at a time over the operation's connection pool, under one bandwidth
// budget, with retries and resume. Everything runs on the calling thread, so events stay there.
#ifndef LOCALRELAY_DOWNLOADER_H
#define LOCALRELAY_DOWNLOADER_H

#include "base/events.h"
#include "transfer/transfer.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace localrelay {

struct Download {
    // What to fetch.
    std::string information;  // the package's path in the catalog: what its events name
    std::string address;      // the file's address (a path, file:// or http(s)://)
    // A local source's address: a local file is opened beneath it, never through a link.
    std::string root;
    const TransferSettings* settings = nullptr;
    uint64_t offset = 0;  // the package is `size` bytes from here of the file at `address`
    uint64_t size = 0;
    std::string sha256;
    std::string part;  // the part file's name in the packages directory
    // Bytes reserved at the start of the part before the package's (the header of the merged
    // archive entry the part becomes): the package is at [headroom, headroom + size).
    uint64_t headroom = 0;

    // How it went. On success the part file holds exactly the verified package after the headroom.
    ZOVRELAY_Status status = kNoSourceReachable;  // until it was fetched and verified
    std::string reason;     // one line, empty on success
    uint64_t received = 0;  // bytes received from the source in this run
    uint64_t resumed = 0;   // bytes a previous run had kept, which were not fetched again
    uint32_t crc32 = 0;     // of the package, on success
    bool keep = false;      // a failure whose part is kept for the next run to continue
    double seconds = 0;
};

// How many transfers run at once against one host.
constexpr size_t kTransfersPerHost = 8;

// Downloads each entry into packages/<part>, largest first, raising downloadbegin, progress and
// downloadend for each (a failed package's downloadend has finished below total and the reason
// in its information). `maxBandwidth` (KiB/s, 0 none) caps the total of all transfers together.
// `done` is called as each entry's outcome is final, outside any transfer callback; what it
// answers <= 0 stops the run. Answers kSuccess when every entry was tried (each says how it
// went); kCancelled as soon as a handler answers 0; kOutOfMemory, or the status of a write the
// repository refused (kNoSpace, kPermissionDenied, kIoError), when the run cannot go on: the
// package whose part could not be written is handed to `done` first, failed with errno's reason.
using DownloadDone = std::function<ZOVRELAY_Status(Download&)>;
ZOVRELAY_Status DownloadAll(std::vector<Download>& downloads, int packagesDirectory, int64_t maxBandwidth,
                            const Events& events, const DownloadDone& done);

// Removes the part files among `names` (the listing of packages/), and their resume records,
// that `planned` does not name. Answers whether it removed any.
bool RemoveUnplannedParts(int packagesDirectory, const std::set<std::string>& names, const std::vector<Download>& planned);

// Whether `name` in packages/ is a part file or resume record that a later run may continue.
bool IsResumablePart(int packagesDirectory, const std::string& name);

// The bytes a part file already holds for a resumable download (0 when none will be resumed).
uint64_t ResumableBytes(int packagesDirectory, const Download& download);

}  // namespace localrelay

#endif
