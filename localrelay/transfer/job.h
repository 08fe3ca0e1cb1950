// One package on its way through the download engine: its part, its attempts and the transfer
// under way. Internal to the transfer layer.
#ifndef LOCALRELAY_JOB_H
#define LOCALRELAY_JOB_H

#include "transfer/downloader.h"
#include "transfer/part.h"
#include "transfer/response.h"

#include <curl/curl.h>

#include <chrono>
#include <string>

namespace localrelay {

using Clock = std::chrono::steady_clock;

// A source host: how many of its transfers run, and how many in a row ended below the floor rate
// or never connected.
struct Host {
    size_t running = 0;
    size_t failing = 0;
};

// The attempt under way: its easy handle on the engine's multi handle, and the request headers
// libcurl reads while it runs. Ended (and the host's count with it) when reset or destroyed.
class Handle {
public:
    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { Reset(); }
    void Attach(CURLM* multi, CURL* easy, Host& host) {
        multi_ = multi, easy_ = easy, host_ = &host;
        ++host.running;
    }
    void SetHeaders(curl_slist* headers) { headers_ = headers; }
    CURL* easy() const { return easy_; }
    void Reset() {
        if (easy_ != nullptr) {
            curl_multi_remove_handle(multi_, easy_);
            curl_easy_cleanup(easy_);
            easy_ = nullptr;
            --host_->running;
        }
        curl_slist_free_all(headers_);
        headers_ = nullptr;
    }

private:
    CURLM* multi_ = nullptr;
    CURL* easy_ = nullptr;
    curl_slist* headers_ = nullptr;
    Host* host_ = nullptr;
};

class Engine;

struct Job {
    Job(Engine& owner, int directory, Download& download, Host& source, PartMaker* maker)
        : engine(owner), d(download), part(directory, download, maker), host(source) {}
    Engine& engine;
    Download& d;
    Part part;
    Host& host;
    uint64_t reported = 0;  // bytes the last progress event named
    bool begun = false;
    int attempts = 0;
    Clock::time_point notBefore{}, started{};
    bool wholeFile = false;  // the server ignored ranges for a package inside a file: skip to it

    // The attempt under way, reset by each start.
    Handle handle;
    char error[CURL_ERROR_SIZE] = "";
    bool checked = false, paused = false, complete = false, ranged = false;
    uint64_t skip = 0;  // bytes before the package in a whole file's answer
    long refused = 0;   // a final response that is not 2xx
    Response response;
    ZOVRELAY_Status stop = kSuccess;  // set by the callbacks
    std::string stopReason;
};

}  // namespace localrelay

#endif
