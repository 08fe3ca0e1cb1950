// HTTP and HTTPS transfers through libcurl.
#include "base/failure.h"
#include "transfer/http.h"
#include "transfer/transfer.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

namespace localrelay {
namespace {

// libcurl's global set-up runs once per process and is never undone: contexts opened before a
// ZOVRELAY_Shutdown keep transferring after it, and other users of libcurl in the host process
// may rely on it too.
bool CurlReady() {
    static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    return code == CURLE_OK;
}

// libcurl's reads hand over at most this much; the sink gets batches of this size. A socket read
// often yields only 16 KiB, and a sink pays per call (a write, a digest update, a progress check):
// batching cut a 256 MiB mirror's system time by a sixth. Memory stays fixed whatever the file.
constexpr long kReceiveBufferSize = 256 * 1024;

// Connecting may take this long; once connected, the floor rate applies (FloorRate).
constexpr long kConnectTimeoutSeconds = 30;

// Holds a transfer to its bandwidth limit: after each chunk, waits until the bytes so far are due.
// libcurl's own limit (CURLOPT_MAX_RECV_SPEED_LARGE) is set as well, but libcurl checks it only
// after a read loop of up to a hundred buffers: from a fast server, 10 MiB meant for 5 s took 0.1 s.
class Pacer {
public:
    explicit Pacer(int64_t kibPerSecond)
        : bytesPerSecond_(kibPerSecond > 0 ? static_cast<double>(kibPerSecond) * 1024.0 : 0.0) {}
    bool limited() const { return bytesPerSecond_ > 0.0; }
    // About a quarter second of data per chunk, so that the limit holds smoothly and a cancelling
    // sink is asked often.
    long ChunkSize(long largest) const {
        if (!limited()) return largest;
        return static_cast<long>(std::clamp(bytesPerSecond_ / 4.0, 1024.0, static_cast<double>(largest)));
    }
    void Received(size_t size) {
        if (!limited()) return;
        received_ += size;
        const auto due = start_ + std::chrono::duration<double>(static_cast<double>(received_) / bytesPerSecond_);
        std::this_thread::sleep_until(std::chrono::time_point_cast<std::chrono::steady_clock::duration>(due));
    }

private:
    double bytesPerSecond_;
    uint64_t received_ = 0;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

struct Transfer {
    Transfer(CURL* handle, ChunkSink& destination, int64_t maxBandwidth)
        : curl(handle), sink(destination), pacer(maxBandwidth) {
        batch.reserve(static_cast<size_t>(pacer.ChunkSize(kReceiveBufferSize)));
    }
    // Hands the sink `data` after what is batched, or batches it; false when the sink stops.
    bool Deliver(const char* data, size_t size) {
        if (batch.size() + size <= batch.capacity() && size != 0) {
            batch.insert(batch.end(), data, data + size);
            return true;
        }
        if (!batch.empty()) {
            if (!sink.Write(batch.data(), batch.size())) return false;
            pacer.Received(batch.size());
            batch.clear();
        }
        if (size == 0) return true;
        if (size < batch.capacity()) return batch.insert(batch.end(), data, data + size), true;
        if (!sink.Write(data, size)) return false;
        pacer.Received(size);
        return true;
    }
    CURL* curl;
    ChunkSink& sink;
    Pacer pacer;
    std::vector<char> batch;  // its capacity is fixed at the start
    bool statusChecked = false;
    bool partial = false;    // a byte range was asked for: only 206 brings it
    long refusedStatus = 0;  // a final response that is not 2xx
    size_t swallowed = 0;    // of an error page's body
    bool sinkStopped = false;
    std::exception_ptr failure;  // thrown by the sink; must not unwind through libcurl's C frames
};

bool IsSuccess(long code) { return code >= 200 && code <= 299; }

constexpr size_t kErrorBodyLimit = 64 * 1024;

size_t Receive(char* data, size_t, size_t size, void* user) noexcept {
    Transfer& transfer = *static_cast<Transfer*>(user);
    if (!transfer.statusChecked) {
        // Failing on error statuses does not cover a final 1xx or 3xx (a redirect without a
        // location, say): its body must not reach the sink as if it were the file.
        long code = 0;
        curl_easy_getinfo(transfer.curl, CURLINFO_RESPONSE_CODE, &code);
        // A range asked for must come as one: a whole file from a server ignoring Range is refused.
        if (!IsSuccess(code) || (transfer.partial && code != 206)) {
            transfer.refusedStatus = code;
            // A short error page is read and dropped, so that the connection stays for the next
            // request (a 404 for source.ini is what every source that is no repository answers).
            // Anything else (a whole file where a range was asked) ends the transfer.
            if (IsSuccess(code) || transfer.swallowed + size > kErrorBodyLimit) return 0;
            transfer.swallowed += size;
            return size;
        }
        transfer.statusChecked = true;
    }
    try {
        if (!transfer.Deliver(data, size)) {
            transfer.sinkStopped = true;
            return 0;
        }
    } catch (...) {
        transfer.failure = std::current_exception();
        return 0;
    }
    return size;
}

// Replaces line breaks so that the reason stays one line whatever the server or libcurl wrote.
std::string OneLine(std::string text) {
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

ZOVRELAY_Status Unreachable(std::string* error, const std::string& reason) {
    if (error != nullptr) *error = OneLine(reason);
    return kNoSourceReachable;
}

// Collects the first refused option, so that set-up reads as a list.
class Options {
public:
    explicit Options(CURL* curl) : curl_(curl) {}
    template <class Value>
    void Set(CURLoption option, Value value) {
        if (first_ == CURLE_OK) first_ = curl_easy_setopt(curl_, option, value);
    }
    CURLcode Result() const { return first_; }

private:
    CURL* curl_;
    CURLcode first_ = CURLE_OK;
};

void SetProtocols(Options& options) {
#if LIBCURL_VERSION_NUM >= 0x075500
    options.Set(CURLOPT_PROTOCOLS_STR, "http,https");
    options.Set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
    options.Set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
    options.Set(CURLOPT_REDIR_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
}

// The system's store, plus the organisation's authorities where the environment names them, as
// the curl tool reads it: CURL_CA_BUNDLE wins; without it SSL_CERT_FILE names the bundle and
// SSL_CERT_DIR the hashed directory. A bundle set this way replaces the system's bundle file but
// not its directory (/etc/ssl/certs), so public authorities stay trusted.
void SetCertificateCheck(Options& options, int64_t level) {
    options.Set(CURLOPT_SSL_VERIFYPEER, level == 0 ? 0L : 1L);
    options.Set(CURLOPT_SSL_VERIFYHOST, level == 0 || level == 1 ? 0L : 2L);
    if (level == 0) return;
    const char* bundle = std::getenv("CURL_CA_BUNDLE");
    const char* directory = nullptr;
    if (bundle == nullptr || *bundle == '\0') {
        bundle = std::getenv("SSL_CERT_FILE");
        directory = std::getenv("SSL_CERT_DIR");
    }
    if (bundle != nullptr && *bundle != '\0') options.Set(CURLOPT_CAINFO, bundle);
    if (directory != nullptr && *directory != '\0') options.Set(CURLOPT_CAPATH, directory);
}

// The relay's settings alone decide the proxy: the environment's http_proxy and no_proxy are
// ignored, so that a transfer goes the way the caller asked or fails.
bool SetProxy(Options& options, const ProxySettings& proxy, std::string* reason) {
    if (!proxy.used) {
        options.Set(CURLOPT_PROXY, "");
        return true;
    }
    if (proxy.host.empty()) {
        *reason = "the proxy has no host";
        return false;
    }
    if (proxy.type != 0 && proxy.type != 1) {
        *reason = "unknown proxy type " + std::to_string(proxy.type);
        return false;
    }
    // An IPv6 literal needs brackets, or its colons would read as a port.
    const bool bracket = proxy.host.find(':') != std::string::npos && proxy.host.front() != '[' &&
                         proxy.host.find("://") == std::string::npos;
    const std::string host = bracket ? "[" + proxy.host + "]" : proxy.host;
    options.Set(CURLOPT_PROXY, host.c_str());  // libcurl copies option strings
    options.Set(CURLOPT_PROXYPORT, static_cast<long>(proxy.port));
    options.Set(CURLOPT_NOPROXY, "");
    if (proxy.type == 1) {
        // The proxy resolves the source's name: the client may have no resolver of its own.
        options.Set(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_SOCKS5_HOSTNAME));
    } else {
        options.Set(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
        // Whatever scheme the proxy asks for; one extra round trip only when it asks.
        options.Set(CURLOPT_PROXYAUTH, static_cast<unsigned long>(CURLAUTH_ANY));
    }
    if (!proxy.user.empty()) options.Set(CURLOPT_PROXYUSERNAME, proxy.user.c_str());
    if (!proxy.password.empty()) options.Set(CURLOPT_PROXYPASSWORD, proxy.password.c_str());
    return true;
}

}  // namespace

int64_t FloorRate(const TransferSettings& settings) {
    int64_t rate = std::max<int64_t>(settings.floorRate, 1);
    if (settings.maxBandwidth > 0 && settings.maxBandwidth < (int64_t(1) << 40))
        rate = std::min(rate, std::max<int64_t>(settings.maxBandwidth * 1024 / 64, 1));
    return rate;
}

int64_t FloorWindow(const TransferSettings& settings) { return std::max<int64_t>(settings.floorWindow, 1); }

TransferSettings ForCatalog(const TransferSettings& settings) {
    TransferSettings catalog = settings;
    catalog.deadline = {};
    // Seconds past what a steady clock's nanoseconds hold (about 292 years) are no limit.
    if (settings.catalogSeconds > 0 && settings.catalogSeconds < (int64_t(1) << 32))
        catalog.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(settings.catalogSeconds);
    return catalog;
}

ZOVRELAY_Status SetCommonOptions(CURL* curl, const TransferSettings& settings, char* errorBuffer,
                                 std::string* reason) {
    if (!CurlReady()) return Unreachable(reason, "libcurl could not be initialised");
    Options options(curl);
    options.Set(CURLOPT_ERRORBUFFER, errorBuffer);
    options.Set(CURLOPT_NOSIGNAL, 1L);  // no SIGALRM: other threads of the host may be transferring too
    SetProtocols(options);
    options.Set(CURLOPT_FOLLOWLOCATION, 1L);
    options.Set(CURLOPT_MAXREDIRS, 10L);
    options.Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    options.Set(CURLOPT_LOW_SPEED_LIMIT, long(std::min<int64_t>(FloorRate(settings), LONG_MAX)));
    options.Set(CURLOPT_LOW_SPEED_TIME, long(std::min<int64_t>(FloorWindow(settings), LONG_MAX)));
    options.Set(CURLOPT_USERAGENT, "zovrelay-local/1.0");
    SetCertificateCheck(options, settings.httpsLevel);
    if (settings.pool != nullptr && settings.pool->share() != nullptr) options.Set(CURLOPT_SHARE, settings.pool->share());
    if (!settings.user.empty() || !settings.password.empty()) {  // sent to the source's host only, as in its URL
        options.Set(CURLOPT_USERNAME, settings.user.c_str());
        options.Set(CURLOPT_PASSWORD, settings.password.c_str());
    }
    std::string proxyProblem;
    if (!SetProxy(options, settings.proxy, &proxyProblem)) return Unreachable(reason, proxyProblem);
    if (options.Result() == CURLE_OUT_OF_MEMORY) return kOutOfMemory;
    if (options.Result() != CURLE_OK)
        return Unreachable(reason, std::string("libcurl refused a setting: ") + curl_easy_strerror(options.Result()));
    return kSuccess;
}

namespace {

// One request: set up, run (alone, or beside others on a multi handle), concluded.
struct Request {
    Request(CURL* handle, ChunkSink& sink, const TransferSettings& settings)
        : curl(handle, curl_easy_cleanup), transfer(handle, sink, settings.maxBandwidth) {}
    ~Request() { curl_slist_free_all(headers); }
    std::unique_ptr<CURL, void (*)(CURL*)> curl;
    Transfer transfer;
    std::string range;
    char curlError[CURL_ERROR_SIZE] = "";
    curl_slist* headers = nullptr;  // a catalog's request headers, read by libcurl while it runs
    std::string etag, modified;     // a catalog's answered validators (of the last response)
};

// The value of header `name` ("etag:") in a header line, or nothing.
bool HeaderIs(const char* data, size_t size, std::string_view name, std::string& value) {
    if (size < name.size()) return false;
    for (size_t i = 0; i < name.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(data[i])) != name[i]) return false;
    value.assign(data + name.size(), size - name.size());
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.pop_back();
    value.erase(0, value.find_first_not_of(" \t"));
    return true;
}

size_t ReceiveHeader(char* data, size_t, size_t size, void* user) noexcept {
    Request& request = *static_cast<Request*>(user);
    try {
        if (size >= 5 && std::string_view(data, 5) == "HTTP/") request.etag.clear(), request.modified.clear();
        std::string value;
        if (HeaderIs(data, size, "etag:", value)) request.etag = value;
        else if (HeaderIs(data, size, "last-modified:", value)) request.modified = value;
    } catch (...) {
        return 0;  // out of memory: the transfer fails
    }
    return size;
}

// Caches revalidate a catalog, and a server answers 304 when the kept copy is still current.
bool SetRevalidation(Request& request, const Revalidation& revalidation) {
    const std::vector<std::string> lines{"Cache-Control: no-cache",
                                         revalidation.etag.empty() ? "" : "If-None-Match: " + revalidation.etag,
                                         revalidation.modified.empty() ? "" : "If-Modified-Since: " + revalidation.modified};
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        curl_slist* more = curl_slist_append(request.headers, line.c_str());
        if (more == nullptr) return false;
        request.headers = more;
    }
    return true;
}

ZOVRELAY_Status Prepare(Request& request, const std::string& url, const TransferSettings& settings, std::string* error) {
    CURL* curl = request.curl.get();
    Transfer& transfer = request.transfer;
    request.range = settings.length > 0 ? std::to_string(settings.offset) + "-" +
                                              std::to_string(settings.offset + settings.length - 1)
                                        : std::string();
    transfer.partial = !request.range.empty();
    const ZOVRELAY_Status common = SetCommonOptions(curl, settings, request.curlError, error);
    if (common <= 0) return common;
    Options options(curl);
    options.Set(CURLOPT_URL, url.c_str());
    options.Set(CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(&Receive));
    options.Set(CURLOPT_WRITEDATA, static_cast<void*>(&transfer));
    options.Set(CURLOPT_BUFFERSIZE, transfer.pacer.ChunkSize(kReceiveBufferSize));
    if (!request.range.empty()) options.Set(CURLOPT_RANGE, request.range.c_str());
    if (settings.deadline != std::chrono::steady_clock::time_point{}) {
        // What is left of the catalog's time, at least a millisecond (0 would mean none).
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(settings.deadline -
                                                                                std::chrono::steady_clock::now());
        options.Set(CURLOPT_TIMEOUT_MS, long(std::clamp<int64_t>(left.count(), 1, LONG_MAX)));
    }
    if (settings.revalidation != nullptr) {
        if (!SetRevalidation(request, *settings.revalidation)) return kOutOfMemory;
        options.Set(CURLOPT_HTTPHEADER, request.headers);
        options.Set(CURLOPT_HEADERFUNCTION, static_cast<curl_write_callback>(&ReceiveHeader));
        options.Set(CURLOPT_HEADERDATA, static_cast<void*>(&request));
    }
    if (settings.maxBandwidth > 0) {
        constexpr int64_t kMaxKiB = std::numeric_limits<curl_off_t>::max() / 1024;
        const int64_t kib = settings.maxBandwidth < kMaxKiB ? settings.maxBandwidth : kMaxKiB;
        options.Set(CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(kib * 1024));
    }
    if (options.Result() == CURLE_OUT_OF_MEMORY) return kOutOfMemory;
    if (options.Result() != CURLE_OK) {
        return Unreachable(error, std::string("libcurl refused a setting: ") + curl_easy_strerror(options.Result()));
    }
    return kSuccess;
}

ZOVRELAY_Status Conclude(Request& request, CURLcode result, const TransferSettings& settings, std::string* error,
                         Attempt* attempt) {
    CURL* curl = request.curl.get();
    Transfer& transfer = request.transfer;
    if (transfer.failure) std::rethrow_exception(transfer.failure);
    if (result == CURLE_OK && !transfer.sinkStopped) transfer.sinkStopped = !transfer.Deliver(nullptr, 0);
    if (transfer.sinkStopped) {
        if (error != nullptr) *error = transfer.sink.stopReason;
        return transfer.sink.stopStatus;
    }

    long code = transfer.refusedStatus;
    if (code == 0 && (result == CURLE_OK || result == CURLE_HTTP_RETURNED_ERROR)) {
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
    }
    const bool refused =
        transfer.refusedStatus != 0 || result == CURLE_HTTP_RETURNED_ERROR || (result == CURLE_OK && !IsSuccess(code));
    if (Revalidation* revalidation = settings.revalidation; revalidation != nullptr && result == CURLE_OK) {
        // Only a copy we offered can be "not modified": a 304 to an unconditional request is an error.
        const bool offered = !revalidation->etag.empty() || !revalidation->modified.empty();
        revalidation->notModified = offered && code == 304;
        if (!refused || revalidation->notModified)
            revalidation->answeredEtag = request.etag, revalidation->answeredModified = request.modified;
        if (revalidation->notModified) return kSuccess;
    }
    if (result == CURLE_OK && !refused) return kSuccess;
    long connect = 0, proxyError = 0;  // a refused tunnel: the source never answered
    curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &connect);
#if LIBCURL_VERSION_NUM >= 0x074900
    curl_easy_getinfo(curl, CURLINFO_PROXY_ERROR, &proxyError);
#endif
    const Failure failure = FromCurl(refused ? CURLE_HTTP_RETURNED_ERROR : result, code, connect, proxyError,
                                     settings.proxy.used && !settings.proxy.user.empty(), request.curlError);
    if (error != nullptr) *error = failure.reason;
    if (attempt != nullptr) {
        attempt->transient = IsTransient(failure.status, code);
        // libcurl answers 0 both for "Retry-After: 0" and for no such header: either way the
        // usual pauses apply, so a busy server is not asked again at once.
        curl_off_t wait = 0;
        if (curl_easy_getinfo(curl, CURLINFO_RETRY_AFTER, &wait) == CURLE_OK && wait > 0) attempt->retryAfter = long(wait);
    }
    return failure.status;
}

}  // namespace

ZOVRELAY_Status FetchHttp(const std::string& url, const TransferSettings& settings, ChunkSink& sink,
                          std::string* error, Attempt* attempt) {
    if (!CurlReady()) return Unreachable(error, "libcurl could not be initialised");
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return kOutOfMemory;
    Request request(curl, sink, settings);
    const ZOVRELAY_Status prepared = Prepare(request, url, settings, error);
    if (prepared <= 0) return prepared;
    return Conclude(request, curl_easy_perform(curl), settings, error, attempt);
}

void FetchFirstHttp(const std::vector<std::string>& urls, const TransferSettings& settings,
                    const std::vector<ChunkSink*>& sinks, std::vector<Fetched>& outcomes) {
    outcomes.assign(urls.size(), Fetched{});
    if (!CurlReady()) {
        for (Fetched& outcome : outcomes) outcome.status = Unreachable(&outcome.error, "libcurl could not be initialised");
        return;
    }
    std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi(curl_multi_init(), curl_multi_cleanup);
    std::vector<std::unique_ptr<Request>> requests;
    std::vector<bool> running(urls.size(), false);
    std::vector<TransferSettings> own(urls.size(), settings);  // each catalog's validators its own
    for (size_t i = 0; i < urls.size(); ++i)
        if (settings.revalidation != nullptr) own[i].revalidation = &outcomes[i].revalidation;
    for (size_t i = 0; i < urls.size(); ++i) {
        CURL* curl = curl_easy_init();
        if (curl == nullptr || multi == nullptr) {
            if (curl != nullptr) curl_easy_cleanup(curl);
            outcomes[i].status = kOutOfMemory;
            requests.emplace_back();
            continue;
        }
        requests.push_back(std::make_unique<Request>(curl, *sinks[i], settings));
        outcomes[i].status = Prepare(*requests[i], urls[i], own[i], &outcomes[i].error);
        running[i] = outcomes[i].status > 0 && curl_multi_add_handle(multi.get(), curl) == CURLM_OK;
        if (outcomes[i].status > 0 && !running[i]) outcomes[i].status = kOutOfMemory;
    }
    for (int active = 1; active > 0;) {
        if (curl_multi_perform(multi.get(), &active) != CURLM_OK) break;
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            for (size_t i = 0; i < requests.size(); ++i) {
                if (!running[i] || requests[i]->curl.get() != message->easy_handle) continue;
                curl_multi_remove_handle(multi.get(), message->easy_handle);
                running[i] = false;
                outcomes[i].status = Conclude(*requests[i], message->data.result, own[i], &outcomes[i].error,
                                              &outcomes[i].attempt);
            }
        }
        // Once an earlier one is under way with a good answer, the later ones are not wanted.
        for (size_t i = 0; i < requests.size(); ++i) {
            const bool good = requests[i] != nullptr && (running[i] ? requests[i]->transfer.statusChecked : outcomes[i].status > 0);
            if (!good) continue;
            for (size_t j = i + 1; j < requests.size(); ++j) {
                if (!running[j]) continue;
                curl_multi_remove_handle(multi.get(), requests[j]->curl.get());
                running[j] = false;
                outcomes[j].stopped = true;
            }
            break;
        }
        if (active > 0 && curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr) != CURLM_OK) break;
    }
    for (size_t i = 0; i < requests.size(); ++i)
        if (running[i]) {
            curl_multi_remove_handle(multi.get(), requests[i]->curl.get());
            outcomes[i].status = kOutOfMemory;
        }
}

}  // namespace localrelay

namespace localrelay {

// Connections, TLS sessions and DNS answers shared by every handle of the operation. All use is
// on the operation's thread, so the share needs no lock callbacks.
Pool::Pool() : share_(CurlReady() ? curl_share_init() : nullptr) {
    if (share_ == nullptr) return;
    for (const curl_lock_data data : {CURL_LOCK_DATA_DNS, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_CONNECT})
        curl_share_setopt(share_, CURLSHOPT_SHARE, data);
}

Pool::~Pool() {
    if (share_ != nullptr) curl_share_cleanup(share_);
}

}  // namespace localrelay
