// Events and final outcomes of the packages the engine fetches.
#include "transfer/outcomes.h"

#include <unistd.h>

namespace localrelay {
namespace {

constexpr uint64_t kProgressStep = 64 * 1024;

}  // namespace

Outcomes::~Outcomes() {
    for (const Download* d : ready_)  // verified, but the run stopped before anyone took them
        if (d->status > 0) ::unlinkat(directory_, d->part.c_str(), 0);
}

ZOVRELAY_Status Outcomes::Begin(Job& job) {
    if (job.begun) return kSuccess;
    job.begun = true;
    job.started = Clock::now();
    return events_.Raise(ZOVRELAY_EVENT_DOWNLOADBEGIN, job.d.information, job.d.size, 0) ? kSuccess : kCancelled;
}

bool Outcomes::Progress(Job& job, bool force) {
    const uint64_t have = job.part.have();
    if (!force && have - job.reported < kProgressStep) return true;
    if (force && job.reported == have && have != 0) return true;
    job.reported = have;
    return events_.Raise(ZOVRELAY_EVENT_PROGRESS, job.d.information, job.d.size, have);
}

ZOVRELAY_Status Outcomes::Verified(Job& job) {
    if (!Progress(job, true)) return kCancelled;
    if (!job.part.Intact()) return Finish(job, kIntegrityFailed, "size or SHA-256 differs from the catalog", false);
    job.d.crc32 = job.part.crc();
    if (!job.part.Close()) return Stopped(job, FromErrno(errno));
    return Finish(job, kSuccess, "", false);
}

// Handed over at once so that its message names the part.
ZOVRELAY_Status Outcomes::Stopped(Job& job, const Failure& failure) {
    ZOVRELAY_Status status = Begin(job);
    if (status > 0) status = Finish(job, failure.status, failure.reason, false);
    if (status > 0 && IsHttpAddress(job.d.address)) {
        ready_.pop_back();  // Finish queued it for between rounds: there will be none
        status = done_(job.d);
    }
    return status > 0 ? failure.status : status;
}

ZOVRELAY_Status Outcomes::Finish(Job& job, ZOVRELAY_Status status, std::string reason, bool transient, bool final) {
    Download& d = job.d;
    if (status <= 0 && transient && !final && job.attempts < kAttempts) {
        long pause = 1L << (job.attempts - 1);
        if (job.response.retryAfter >= 0) pause = std::min(job.response.retryAfter, kRetryAfterCap);
        job.notBefore = Clock::now() + std::chrono::seconds(pause);
        d.reason = reason;
        retrying.push_back(&job);
        return kSuccess;
    }
    if (IsHttpAddress(d.address)) --unfinished;
    d.status = status;
    d.reason = std::move(reason);
    d.seconds = std::chrono::duration<double>(Clock::now() - job.started).count();
    job.attempts = kAttempts + 1;  // done: never started again
    if (status <= 0) {
        d.keep = transient && job.part.recorded() && job.part.have() > 0;
        job.handle.Reset();
        job.part.Release(d.keep);
        if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, d.information + ": " + d.reason, d.size, 0)) return kCancelled;
    } else if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, d.information, d.size, d.size)) {
        ::unlinkat(directory_, d.part.c_str(), 0);  // verified, but no one will take it now
        return kCancelled;
    }
    if (!IsHttpAddress(d.address)) return done_(d);
    ready_.push_back(&d);  // handed over between network rounds, so that storing overlaps transfers
    return kSuccess;
}

ZOVRELAY_Status Outcomes::HandOverOne() {
    Download& d = *ready_.front();
    ready_.pop_front();
    return done_(d);
}

ZOVRELAY_Status Outcomes::HandOverAll() {
    for (; !ready_.empty(); ready_.pop_front())
        if (const ZOVRELAY_Status status = done_(*ready_.front()); status <= 0) return status;
    return kSuccess;
}

// The first bytes of a response: whether its status and range are what was asked. False stops
// the transfer.
bool CheckAnswer(Job& job) {
    long code = 0;
    curl_easy_getinfo(job.handle.easy(), CURLINFO_RESPONSE_CODE, &code);
    if (code < 200 || code > 299) {
        job.refused = code;
        return false;
    }
    if (code == 206) {
        if (!job.ranged || !RangeStartsAt(job.response.contentRange, job.d.offset + job.part.have())) {
            job.stop = kConnectionFailed, job.stopReason = "the server answered another range than asked";
            job.wholeFile = true;
            if (!job.part.Restart()) job.stop = kIoError;
            return false;
        }
    } else {
        // The whole file: the server ignores ranges, or the file changed since the bytes kept.
        if (job.part.have() > 0 && !job.part.Restart()) job.stop = kIoError;
        if (job.ranged) job.wholeFile = true;
        job.skip = job.d.offset;
    }
    // These bytes start the part: the response's validators describe them all.
    if (!job.part.recorded() && job.part.have() == 0) job.part.validators = job.response.answered;
    job.checked = true;
    return true;
}

// What a failed attempt's libcurl result and HTTP status mean: one classification for every
// transfer (failure.cpp). Call before the handle is reset.
Failure AttemptFailure(Job& job, CURLcode result, long code) {
    long proxyCode = 0, proxyError = 0;
    curl_easy_getinfo(job.handle.easy(), CURLINFO_HTTP_CONNECTCODE, &proxyCode);
#if LIBCURL_VERSION_NUM >= 0x074900
    curl_easy_getinfo(job.handle.easy(), CURLINFO_PROXY_ERROR, &proxyError);
#endif
    const std::string curlReason = job.error[0] != '\0' ? job.error : curl_easy_strerror(result);
    const bool refused = code >= 300 || job.refused != 0 || result == CURLE_OK;
    const ProxySettings& proxy = job.d.settings->proxy;
    return FromCurl(refused ? CURLE_HTTP_RETURNED_ERROR : result, code, proxyCode, proxyError,
                    proxy.used && !proxy.user.empty(), curlReason.c_str());
}

}  // namespace localrelay
