#include "base/failure.h"

#include <cerrno>
#include <cstring>
#include <cwchar>

namespace localrelay {
namespace {

// What failed and why, whole: the 63 characters of the interface's message are cut from it when
// asked for, the full text goes to the run report and the local relay's own callers.
struct Detail {
    ZOVRELAY_Status status = kSuccess;
    std::string reason, object;
};

// A detail stays bounded (a hostile source chooses addresses and reasons), cut at its end.
constexpr size_t kDetailLimit = 2048;

// Per thread, so that concurrent operations on other contexts never see each other's detail. Calls
// nest (an event handler may run an operation of its own), so each running call has its record;
// past kDepth, deeper calls keep none and answer the table's text.
constexpr int kDepth = 8;
thread_local Detail pending[kDepth];  // recorded during each running call, outermost first
thread_local int depth = 0;           // relay calls running on this thread
thread_local Detail last;             // the last failing call's, for GetStatusMessage

Detail* Running() { return depth > 0 && depth <= kDepth ? &pending[depth - 1] : nullptr; }

// A cause (a libcurl result, an errno value) by the administrator's remedy, with its reason.
template <typename Cause>
struct Classified {
    Cause cause;
    Status status;
    const char* reason;
};

template <typename Cause, size_t N>
const Classified<Cause>* Find(const Classified<Cause> (&table)[N], Cause cause) {
    for (const Classified<Cause>& entry : table)
        if (entry.cause == cause) return &entry;
    return nullptr;
}

// What is not listed is a source that could not be read for another reason: kNoSourceReachable
// with libcurl's own words.
constexpr Classified<CURLcode> kCurlTable[] = {
    {CURLE_COULDNT_RESOLVE_HOST, kHostNotResolved, "host name not resolved"},
    {CURLE_COULDNT_RESOLVE_PROXY, kHostNotResolved, "proxy host name not resolved"},
    {CURLE_COULDNT_CONNECT, kConnectionFailed, "cannot connect"},
    {CURLE_OPERATION_TIMEDOUT, kConnectionFailed, "timed out"},
    {CURLE_SEND_ERROR, kConnectionFailed, "connection broken"},
    {CURLE_RECV_ERROR, kConnectionFailed, "connection broken"},
    {CURLE_GOT_NOTHING, kConnectionFailed, "empty reply"},
    {CURLE_PARTIAL_FILE, kConnectionFailed, "transfer cut short"},
    {CURLE_SSL_CONNECT_ERROR, kConnectionFailed, "TLS handshake failed"},
    {CURLE_PEER_FAILED_VERIFICATION, kCertificateRefused, "certificate refused"},
    {CURLE_SSL_CACERT_BADFILE, kCertificateRefused, "CA bundle unreadable"},
    {CURLE_SSL_CERTPROBLEM, kCertificateRefused, "certificate refused"},
    {CURLE_SSL_ISSUER_ERROR, kCertificateRefused, "certificate issuer refused"},
    {CURLE_UNSUPPORTED_PROTOCOL, kUnsupportedAddress, "unsupported address"},
    {CURLE_URL_MALFORMAT, kUnsupportedAddress, "malformed address"},
    {CURLE_TOO_MANY_REDIRECTS, kHttpError, "too many redirects"},
    {CURLE_OUT_OF_MEMORY, kOutOfMemory, "out of memory"},
};

// What is not listed is an i/o error, in strerror's words.
constexpr Classified<int> kErrnoTable[] = {
    {ENOSPC, kNoSpace, "no space left"},
    {EDQUOT, kNoSpace, "disk quota exceeded"},
    {EFBIG, kNoSpace, "file too large"},
    {EACCES, kPermissionDenied, "permission denied"},
    {EPERM, kPermissionDenied, "operation not permitted"},
    {EROFS, kPermissionDenied, "read-only file system"},
    {ENOMEM, kOutOfMemory, "out of memory"},
};

std::string OneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

// "HTTP 404 for pattern/x.zip" reads as a sentence; other reasons name their object after ": ".
std::string Joined(const std::string& reason, const std::string& object) {
    if (object.empty()) return reason;
    return reason + (reason.compare(0, 5, "HTTP ") == 0 ? " for " : ": ") + object;
}

// The failures of the repository's own files stop the run; what fails after (the catalogs and
// records written on the way out) follows from the first, which names the file to look at.
bool FirstWins(ZOVRELAY_Status status) { return status == kNoSpace || status == kPermissionDenied || status == kIoError; }

}  // namespace

Failure FromCurl(CURLcode result, long response, long connect, long proxyError, bool proxied, const char* text) {
    const std::string words = OneLine(text != nullptr ? text : "");
    // The proxy's refusal comes as CONNECT's answer for https://, as the response itself for
    // http://; some proxies (tinyproxy) answer wrong credentials with 401 rather than 407.
    const bool refusedByProxy = connect == 407 || connect == 401 || response == 407 || (proxied && response == 401);
    if (refusedByProxy) {
        const long code = connect != 0 ? connect : response;
        return {kProxyRefused, "proxy refused the credentials (HTTP " + std::to_string(code) + ")"};
    }
    if (connect != 0 && (connect < 200 || connect > 299))
        return {kConnectionFailed, "proxy answered HTTP " + std::to_string(connect)};
    if (result == CURLE_OK || result == CURLE_HTTP_RETURNED_ERROR)
        return {kHttpError, "HTTP " + std::to_string(response)};
#if LIBCURL_VERSION_NUM >= 0x074900
    if (result == CURLE_PROXY) {
        if (proxyError == CURLPX_USER_REJECTED || proxyError == CURLPX_NO_AUTH || proxyError == CURLPX_REQUEST_FAILED)
            return {kProxyRefused, "proxy refused the request"};
        if (proxyError == CURLPX_RESOLVE_HOST) return {kHostNotResolved, "host name not resolved by the proxy"};
        return {kConnectionFailed, "proxy handshake failed (" + words + ")"};
    }
#else
    (void)proxyError;
#endif
    if (const Classified<CURLcode>* entry = Find(kCurlTable, result)) {
        std::string reason = entry->reason;
        // libcurl's words say which check failed or which host; they go last, where a short
        // message drops them first.
        if (!words.empty() && entry->status != kOutOfMemory) reason += " (" + words + ")";
        return {entry->status, reason};
    }
    return {kNoSourceReachable, words.empty() ? curl_easy_strerror(result) : words};
}

Failure FromErrno(int error) {
    if (const Classified<int>* entry = Find(kErrnoTable, error)) return {entry->status, entry->reason};
    std::string reason = std::strerror(error);
    if (!reason.empty() && reason[0] >= 'A' && reason[0] <= 'Z') reason[0] = char(reason[0] - 'A' + 'a');  // as ours read
    return {kIoError, reason};
}

std::string ShortenEnd(const std::string& text, size_t width) {
    if (text.size() <= width) return text;
    if (width <= 3) return text.substr(0, width);
    size_t kept = width - 3;
    while (kept > 0 && (static_cast<unsigned char>(text[kept]) & 0xC0) == 0x80) --kept;  // whole characters
    return text.substr(0, kept) + "...";
}

std::string Describe(const std::string& reason, const std::string& object, size_t width) {
    std::string shortReason = OneLine(reason);
    const std::string line = OneLine(object);
    if (Joined(shortReason, line).size() <= width) return Joined(shortReason, line);
    // Too long: the reason gives up its details first, then the text is cut at its end, so that an
    // address reads as it starts and never loses its middle.
    const size_t open = shortReason.find(" (");
    if (open != std::string::npos && !line.empty()) shortReason.resize(open);
    return ShortenEnd(Joined(shortReason, line), width);
}

ZOVRELAY_Status Fail(ZOVRELAY_Status status, const std::string& reason, const std::string& object) noexcept {
    Detail* running = Running();
    if (running == nullptr) return status;
    if (FirstWins(status) && running->status == status) return status;
    try {
        *running = Detail{status, ShortenEnd(OneLine(reason), kDetailLimit), ShortenEnd(OneLine(object), kDetailLimit)};
    } catch (...) {
        *running = Detail{};  // the table's text then
    }
    return status;
}

void EnterCall() noexcept { ++depth; }

ZOVRELAY_Status Settle(ZOVRELAY_Status status) noexcept {
    if (status <= 0) {
        last.status = status;
        last.reason.clear();
        last.object.clear();
    }
    return status;
}

ZOVRELAY_Status LeaveCall(ZOVRELAY_Status status) noexcept {
    Detail* running = Running();
    Settle(status);
    if (running != nullptr) {
        if (status <= 0 && running->status == status) std::swap(last, *running);
        *running = Detail{};
    }
    --depth;
    return status;
}

bool IsTransient(ZOVRELAY_Status status, long code) {
    if (status == kConnectionFailed) return true;
    return status == kHttpError &&
           (code == 408 || code == 429 || code == 500 || code == 502 || code == 503 || code == 504);
}

std::string StatusText(ZOVRELAY_Status status) {
    for (const StatusEntry& entry : kStatusTable)
        if (entry.status == status) return std::string(entry.message, entry.message + std::wcslen(entry.message));
    return "status " + std::to_string(status);
}

std::string MessageFor(ZOVRELAY_Status status) {
    const Detail* running = Running();
    return running != nullptr && running->status == status && !running->reason.empty()
               ? Joined(running->reason, running->object)
               : StatusText(status);
}

bool LastFailureText(ZOVRELAY_Status status, std::string& text, bool whole) {
    if (last.status != status || last.status > 0 || last.reason.empty()) return false;
    text = whole ? Joined(last.reason, last.object) : Describe(last.reason, last.object);
    return true;
}

}  // namespace localrelay
