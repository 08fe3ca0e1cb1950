// Reading a file from a source address: a local directory, file://, http:// or https://.
// Transfers stream through a fixed buffer, so memory does not grow with the file's size.
#ifndef LOCALRELAY_TRANSFER_H
#define LOCALRELAY_TRANSFER_H

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/status.h"

namespace localrelay {

struct ProxySettings {
    bool used = false;
    int type = 0;  // 0 HTTP, 1 SOCKS5
    std::string host;
    uint16_t port = 0;
    std::string user;      // empty: none
    std::string password;  // empty: none
};

class Pool;

// A catalog request: it asks every cache on the way to revalidate (Cache-Control: no-cache), sends
// the validators of the copy kept from last time (If-None-Match, If-Modified-Since) and takes the
// server's new ones. A 304 is a success with `notModified` set and no bytes: the kept copy stands.
struct Revalidation {
    std::string etag, modified;                  // sent when not empty
    std::string answeredEtag, answeredModified;  // of the answer
    bool notModified = false;
};

struct TransferSettings {
    int64_t maxBandwidth = 0;  // KiB/s; 0 or less: no limit
    int64_t httpsLevel = 2;    // 0 no certificate check, 1 peer certificate, 2 (and any other) peer and host
    ProxySettings proxy;
    // The source's login, taken out of its address so that no text the relay writes carries it.
    std::string user{}, password{};
    Pool* pool = nullptr;  // the operation's connections, when it has a pool
    // A byte range of the file: `length` bytes from `offset` (a version inside a merged archive).
    // length 0: the whole file.
    uint64_t offset = 0, length = 0;
    // The floor rate: an HTTP transfer that receives less than `floorRate` bytes/s on average over
    // `floorWindow` seconds is cut (a timeout, which may be tried again). See FloorRate.
    int64_t floorRate = 1024, floorWindow = 60;
    // A source's catalogs, all their attempts together, may take this many seconds (0: no limit);
    // `deadline` is when the current catalog fetch ends (none when zero), set by its caller.
    int64_t catalogSeconds = 300;
    std::chrono::steady_clock::time_point deadline{};
    Revalidation* revalidation = nullptr;  // catalogs only; FetchText and FetchFirstText always revalidate
};

// The floor rate a transfer is held to, in bytes/s: `floorRate` (at least 1 byte/s), but never
// more than a sixty-fourth of maxbandwidth, so that transfers the budget holds back (up to 8
// per host, from several hosts) are not cut.
int64_t FloorRate(const TransferSettings& settings);
// The floor's window in seconds, at least 1.
int64_t FloorWindow(const TransferSettings& settings);
// `settings` with the deadline of a catalog fetch starting now.
TransferSettings ForCatalog(const TransferSettings& settings);

// Receives the file's bytes in order. Answering false stops the transfer at once; Fetch then
// returns the status the sink left in `stopStatus` (for example cancelled or i/o error).
class ChunkSink {
public:
    virtual ~ChunkSink() = default;
    virtual bool Write(const char* data, size_t size) = 0;
    ZOVRELAY_Status stopStatus = -10;
    std::string stopReason;  // why, on one line ("no space left"); Fetch hands it out as its error
};

// The file system path a local address (a path or file:// URL) names; false, with `error`, for
// addresses no local read can serve.
bool LocalPath(const std::string& address, std::string& path, std::string* error);

// Opens the regular file at `relative` beneath the directory `root` for reading (without
// blocking on a FIFO), resolving no symbolic link on the way and never leaving `root`: openat2
// with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS where the kernel has it, else one component at a
// time with O_NOFOLLOW ("..", a link or a special file refused). -1 with `why` otherwise.
// `componentWise` forces the second way (for tests).
int OpenBeneath(const std::string& root, const std::string& relative, std::string& why, bool componentWise = false);

// The fewest bytes a package inside a file (a byte range) may have: the smallest zip file, an
// empty archive's end record. Shorter ranges of local sources are refused: they would let a
// catalog test a file's bytes one by one against known digests.
constexpr uint64_t kMinimumRange = 22;

// Whether the address is an http:// or https:// URL.
bool IsHttpAddress(const std::string& address);

// The address of `relative` under a source address: "<address>/<relative>", with one "/".
std::string JoinAddress(const std::string& address, const std::string& relative);

// Streams the file at `address` (absolute path, file:// or http(s):// URL) into the sink.
// Returns 1 on success; for HTTP(S) the status failure.h classifies (HTTP error, name not resolved,
// connection failed, certificate or proxy refused...); -19 for an address of another kind
// (ftp://...); -5 for a local file that cannot be read; the sink's stopStatus when it stopped the
// transfer; -10 for local read errors after the file was opened. `error` gets a one-line reason.
// `transient` (when given) says whether another attempt may cure a failure (see IsTransient), and
// `retryAfter` the seconds an HTTP server asked to wait before it (-1 when it did not say).
struct Attempt {
    bool transient = false;
    long retryAfter = -1;
};
ZOVRELAY_Status Fetch(const std::string& address, const TransferSettings& settings, ChunkSink& sink,
                      std::string* error = nullptr, Attempt* attempt = nullptr);

// Reads a small file (a catalog) whole; more than `limit` bytes answers -11 "invalid catalog". A
// transient failure is tried again from the start, as packages are: five attempts, pausing 1, 2, 4
// and 8 s between them, or what the server asks with Retry-After up to 30 s. `transient` tells
// whether the final failure was still one that might pass.
ZOVRELAY_Status FetchText(const std::string& address, const TransferSettings& settings, std::string& text,
                          size_t limit = 64u << 20, std::string* error = nullptr, bool* transient = nullptr);

// How one of several requests went.
struct Fetched {
    ZOVRELAY_Status status = kNoSourceReachable;
    std::string error;
    Attempt attempt;
    bool stopped = false;  // not needed after all: an earlier one answered
    Revalidation revalidation;  // a catalog's validators as answered (when the settings revalidate)
};

// Asks for every address at once (HTTP, over the settings' pool), the bodies going to `sinks`, and
// stops the later requests as soon as an earlier one answers 2xx: what a caller would try in turn,
// without a round trip for each. One attempt each.
void FetchFirstHttp(const std::vector<std::string>& urls, const TransferSettings& settings,
                    const std::vector<ChunkSink*>& sinks, std::vector<Fetched>& outcomes);

// FetchFirstHttp for small files read whole, as FetchText reads one (without its retries).
void FetchFirstText(const std::vector<std::string>& urls, const TransferSettings& settings,
                    std::vector<std::string>& texts, std::vector<Fetched>& outcomes, size_t limit = 64u << 20);

// Fetch for http:// and https:// addresses (libcurl), with the same contract as Fetch.
ZOVRELAY_Status FetchHttp(const std::string& url, const TransferSettings& settings, ChunkSink& sink,
                          std::string* error, Attempt* attempt = nullptr);

}  // namespace localrelay

#endif
