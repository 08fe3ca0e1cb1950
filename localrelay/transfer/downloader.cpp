// The download phase of a mirror: a queue of packages, largest first, served by a libcurl multi
// handle driven from the calling thread (HTTP), or read in turn (local sources). The engine here
// schedules and runs the transfers; parts (part.cpp), resume records (resume.cpp), response
// headers (response.cpp), outcomes and retries (outcomes.cpp) and local reads (local.cpp) live
// beside it.
#include "transfer/downloader.h"
#include "transfer/budget.h"
#include "transfer/http.h"
#include "transfer/local.h"
#include "transfer/outcomes.h"
#include "base/beside.h"
#include "base/status.h"

#include <algorithm>
#include <map>
#include <memory>

namespace localrelay {
namespace {

constexpr long kReceiveBuffer = 256 * 1024;
// A host whose transfers ended this many times in a row below the floor rate, or without a
// connection, is given up for the run: every transfer running at once, each at its last attempt.
constexpr size_t kHostGivenUpAfter = kTransfersPerHost * kAttempts;

std::string HostOf(const std::string& address) {
    const size_t scheme = address.find("://");
    if (scheme == std::string::npos) return "";
    const size_t end = address.find('/', scheme + 3);
    return address.substr(0, end);
}

// Whether the attempt took over a second at less than the floor rate on average.
bool Crawled(const Job& job) {
    curl_off_t micros = 0, bytes = 0;
    curl_easy_getinfo(job.handle.easy(), CURLINFO_TOTAL_TIME_T, &micros);
    curl_easy_getinfo(job.handle.easy(), CURLINFO_SIZE_DOWNLOAD_T, &bytes);
    return micros >= 1000000 && double(bytes) < double(FloorRate(*job.d.settings)) * (double(micros) / 1e6);
}

}  // namespace

class Engine {
public:
    Engine(int directory, int64_t maxBandwidth, const Events& events, const DownloadDone& done, PartMaker* maker)
        : directory_(directory), budget_(maxBandwidth), outcomes_(directory, events, done), maker_(maker) {}
    ZOVRELAY_Status Run(std::vector<Download>& downloads);

private:
    ZOVRELAY_Status ReadLocals();
    ZOVRELAY_Status StartRetries(Clock::duration& idle);
    ZOVRELAY_Status StartQueued();
    ZOVRELAY_Status Launch(Job& job);
    ZOVRELAY_Status Start(Job& job);
    ZOVRELAY_Status Perform(bool& finished, bool& over);
    ZOVRELAY_Status Unpause(Clock::duration& idle);
    size_t Body(Job& job, const char* data, size_t size);
    ZOVRELAY_Status Done(Job& job, CURLcode result);
    ZOVRELAY_Status Classify(Job& job, CURLcode result, long code);
    static size_t OnHeader(char* data, size_t, size_t size, void* user) noexcept;
    static size_t OnBody(char* data, size_t, size_t size, void* user) noexcept;

    int directory_;
    Budget budget_;
    Outcomes outcomes_;
    PartMaker* maker_;
    std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi_{nullptr, curl_multi_cleanup};  // outlives the jobs
    std::map<std::string, Host> hosts_;
    std::vector<std::unique_ptr<Job>> jobs_;
    // The queue, kept so that each round of the loop costs what is running, not what is queued.
    std::map<std::string, std::deque<Job*>> queued_;  // never started, per host, largest first
    std::vector<Job*> paused_;                        // paused by the budget
    // Set by a callback that stops the run, so that the other transfers of the same
    // curl_multi_perform call raise nothing more.
    ZOVRELAY_Status stopped_ = kSuccess;
};

ZOVRELAY_Status Engine::ReadLocals() {
    for (const std::unique_ptr<Job>& job : jobs_) {
        if (IsHttpAddress(job->d.address)) continue;
        ZOVRELAY_Status status = job->part.Open(false) ? kSuccess : outcomes_.Stopped(*job, FromErrno(errno));
        if (status > 0) status = outcomes_.Begin(*job);
        if (status > 0) status = ReadLocal(*job, outcomes_, budget_);
        if (status <= 0) return status;
    }
    return kSuccess;
}

ZOVRELAY_Status Engine::StartRetries(Clock::duration& idle) {
    const Clock::time_point now = Clock::now();
    std::vector<Job*>& retrying = outcomes_.retrying;
    for (size_t i = 0; i < retrying.size();) {
        Job& job = *retrying[i];
        if (job.notBefore > now || job.host.running >= kTransfersPerHost) {
            if (job.notBefore > now) idle = std::min(idle, job.notBefore - now);
            ++i;
            continue;
        }
        retrying.erase(retrying.begin() + long(i));
        if (const ZOVRELAY_Status status = Launch(job); status <= 0) return status;
    }
    return kSuccess;
}

ZOVRELAY_Status Engine::StartQueued() {
    for (auto& [host, queue] : queued_) {
        while (!queue.empty() && hosts_[host].running < kTransfersPerHost) {
            Job& job = *queue.front();
            queue.pop_front();
            ZOVRELAY_Status status = job.part.Open(true) ? kSuccess : outcomes_.Stopped(job, FromErrno(errno));
            if (status > 0) status = outcomes_.Begin(job);
            if (status > 0 && job.part.have() == job.d.size) {
                // A previous run received it all: verify it, or fetch it again from the start.
                if (job.part.Intact()) {
                    if ((status = outcomes_.Verified(job)) <= 0) return status;
                    continue;
                }
                if (!job.part.Restart()) job.stop = kIoError;
            }
            if (status > 0) status = Launch(job);
            if (status <= 0) return status;
        }
    }
    return kSuccess;
}

// Starts the job's next attempt, unless its source's last transfers all ended below the floor
// rate or never connected: then the package fails at once (its part kept for a later run), free
// for another source, so that a source sending almost nothing holds the run for about as long as
// one package's attempts, however many packages it lists.
ZOVRELAY_Status Engine::Launch(Job& job) {
    if (job.host.failing < kHostGivenUpAfter) return Start(job);
    const TransferSettings& settings = *job.d.settings;
    return outcomes_.Finish(job, kConnectionFailed,
                            "not tried: the source's last " + std::to_string(job.host.failing) +
                                " transfers sent less than " + std::to_string(FloorRate(settings)) + " bytes/s over " +
                                std::to_string(FloorWindow(settings)) + " s or never connected",
                            true, true);
}

ZOVRELAY_Status Engine::Start(Job& job) {
    Download& d = job.d;
    ++job.attempts;
    job.checked = job.paused = job.complete = false;
    job.skip = 0;
    job.refused = 0;
    job.response = {};
    job.stop = kSuccess;
    job.stopReason.clear();
    job.error[0] = '\0';
    CURL* easy = curl_easy_init();
    if (easy == nullptr) return kOutOfMemory;
    job.handle.Attach(multi_.get(), easy, job.host);
    std::string reason;
    const ZOVRELAY_Status common = SetCommonOptions(easy, *d.settings, job.error, &reason);
    if (common == kOutOfMemory) return common;
    if (common <= 0) return outcomes_.Finish(job, common, reason, false);
    const uint64_t have = job.part.have();
    const uint64_t from = job.wholeFile ? 0 : d.offset + have;
    job.ranged = from > 0;
    const std::string range = std::to_string(from) + "-" + std::to_string(d.offset + d.size - 1);
    curl_easy_setopt(easy, CURLOPT_URL, d.address.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, budget_.ChunkSize(kReceiveBuffer));
    if (job.ranged) curl_easy_setopt(easy, CURLOPT_RANGE, range.c_str());
    // Bytes kept from an earlier response continue only while the file is the same one.
    const Validators& kept = job.part.validators;
    std::string ifRange;
    if (have > 0 && !kept.etag.empty()) ifRange = "If-Range: " + kept.etag;
    else if (have > 0 && !kept.modified.empty()) ifRange = "If-Range: " + kept.modified;
    curl_slist* headers = ifRange.empty() ? nullptr : curl_slist_append(nullptr, ifRange.c_str());
    job.handle.SetHeaders(headers);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) return kOutOfMemory;
    return kSuccess;
}

size_t Engine::OnHeader(char* data, size_t, size_t size, void* user) noexcept {
    Job& job = *static_cast<Job*>(user);
    try {
        job.response.ReadHeaderLine(data, size);
    } catch (...) {
        job.stop = kOutOfMemory;
        return 0;
    }
    return size;
}

size_t Engine::OnBody(char* data, size_t, size_t size, void* user) noexcept {
    Job& job = *static_cast<Job*>(user);
    try {
        return job.engine.Body(job, data, size);
    } catch (...) {  // nothing may unwind through libcurl
        job.engine.stopped_ = job.stop = kOutOfMemory;
        return 0;
    }
}

size_t Engine::Body(Job& job, const char* data, size_t size) {
    Download& d = job.d;
    if (stopped_ <= 0) return 0;
    if (!job.checked && !CheckAnswer(job)) return 0;
    if (budget_.limited() && !budget_.Available()) {
        job.paused = true;
        paused_.push_back(&job);
        return CURL_WRITEFUNC_PAUSE;
    }
    budget_.Spend(size);
    d.received += size;
    const size_t taken = size;  // what libcurl must hear back, whatever part of it is ours
    if (job.skip > 0) {
        const size_t skipped = size_t(std::min<uint64_t>(job.skip, size));
        job.skip -= skipped, data += skipped, size -= skipped;
        if (size == 0) return taken;
    }
    if (size > d.size - job.part.have()) {
        if (d.offset == 0 || !job.wholeFile) {
            job.stop = kIntegrityFailed, job.stopReason = "more bytes than the catalog's size";
            return 0;
        }
        size = size_t(d.size - job.part.have());  // the rest of a file that holds more than our package
        job.complete = true;
    }
    if (!job.part.Append(data, size)) {
        const Failure failure = FromErrno(errno);
        stopped_ = job.stop = failure.status;
        job.stopReason = failure.reason;
        return 0;
    }
    job.part.RecordIfWorth();
    if (!outcomes_.Progress(job, false)) {
        stopped_ = job.stop = kCancelled;
        return 0;
    }
    return job.complete ? 0 : taken;
}

// What a finished attempt means for its package.
ZOVRELAY_Status Engine::Done(Job& job, CURLcode result) {
    long code = job.refused;
    if (code == 0) curl_easy_getinfo(job.handle.easy(), CURLINFO_RESPONSE_CODE, &code);
    if (job.stop == kCancelled || job.stop == kOutOfMemory) return job.stop;
    if (job.stop == kIoError || job.stop == kNoSpace || job.stop == kPermissionDenied) {
        job.handle.Reset();
        return outcomes_.Stopped(job, Failure{job.stop, job.stopReason});
    }
    if (stopped_ <= 0) return stopped_;  // another transfer of the same round stopped the run
    // A transfer cut below the floor rate, one that never connected, and one that ended but took
    // over a second at less than the floor (a trickle of small packages) count against the
    // source; any other that ran its course clears the count.
    const bool ended = result == CURLE_OK || job.complete;
    if (result == CURLE_OPERATION_TIMEDOUT || result == CURLE_COULDNT_CONNECT || (ended && Crawled(job)))
        ++job.host.failing;
    else if (ended)
        job.host.failing = 0;
    return Classify(job, result, code);
}

ZOVRELAY_Status Engine::Classify(Job& job, CURLcode result, long code) {
    const Download& d = job.d;
    const bool answered = job.complete || (result == CURLE_OK && code >= 200 && code <= 299);
    const bool known = answered || job.stop == kIntegrityFailed || job.stop == kConnectionFailed ||
                       result == CURLE_OUT_OF_MEMORY;
    const Failure failure = known ? Failure{} : AttemptFailure(job, result, code);
    job.handle.Reset();
    if (job.stop == kIntegrityFailed) return outcomes_.Finish(job, kIntegrityFailed, job.stopReason, false);
    if (job.stop == kConnectionFailed) return outcomes_.Finish(job, kConnectionFailed, job.stopReason, true);
    if (result == CURLE_OUT_OF_MEMORY) return kOutOfMemory;
    if (answered) {
        if (job.part.have() == d.size) return outcomes_.Verified(job);
        return outcomes_.Finish(job, kConnectionFailed,
                                "the connection closed after " + std::to_string(job.part.have()) + " of " +
                                    std::to_string(d.size) + " bytes",
                                true);
    }
    // A refused connection, a reset or a timeout, and a server's 5xx or 429, are worth another
    // attempt.
    return outcomes_.Finish(job, failure.status, failure.reason, IsTransient(failure.status, code));
}

// One network round: libcurl moves what it can, and the attempts that ended are settled.
ZOVRELAY_Status Engine::Perform(bool& finished, bool& over) {
    int running = 0;
    if (curl_multi_perform(multi_.get(), &running) != CURLM_OK) return kOutOfMemory;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        finished = true;
        void* job = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &job);
        const ZOVRELAY_Status status = Done(*static_cast<Job*>(job), message->data.result);
        if (status <= 0) return status;
    }
    over = running == 0 && outcomes_.unfinished == 0;
    return kSuccess;
}

// Transfers the budget paused go on once it refilled.
ZOVRELAY_Status Engine::Unpause(Clock::duration& idle) {
    if (!budget_.limited() || paused_.empty()) return kSuccess;
    const Clock::duration wait = budget_.Wait();
    if (wait != Clock::duration::zero()) {
        idle = std::min(idle, wait);
        return kSuccess;
    }
    std::vector<Job*> paused;
    paused.swap(paused_);
    for (Job* job : paused) {
        if (job->handle.easy() == nullptr || !job->paused) continue;
        job->paused = false;
        curl_easy_pause(job->handle.easy(), CURLPAUSE_CONT);
        if (job->stop == kCancelled) return kCancelled;
    }
    return kSuccess;
}

ZOVRELAY_Status Engine::Run(std::vector<Download>& downloads) {
    for (Download& d : downloads) {
        const std::string host = HostOf(d.address);
        jobs_.push_back(std::make_unique<Job>(*this, directory_, d, hosts_[host], maker_));
    }
    // Largest first, so that a big package does not finish alone at the end.
    std::stable_sort(jobs_.begin(), jobs_.end(), [](const auto& a, const auto& b) { return a->d.size > b->d.size; });
    if (const ZOVRELAY_Status status = ReadLocals(); status <= 0) return status;
    for (const std::unique_ptr<Job>& job : jobs_) {
        if (!IsHttpAddress(job->d.address)) continue;
        queued_[HostOf(job->d.address)].push_back(job.get());
        ++outcomes_.unfinished;
    }
    multi_.reset(curl_multi_init());
    if (multi_ == nullptr) return kOutOfMemory;
    // A transfer of its own connection, over HTTP/2 too: streams multiplexed on one connection share
    // one congestion window, which holds a long round trip's transfers to the speed of one.
    curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, long(CURLPIPE_NOTHING));
    for (;;) {
        Clock::duration idle = std::chrono::seconds(1);
        ZOVRELAY_Status status = StartRetries(idle);
        if (status > 0) status = StartQueued();
        bool finished = false;  // then start the next transfers before waiting for anything
        bool over = false;
        if (status > 0) status = Perform(finished, over);
        if (status > 0 && over) return outcomes_.HandOverAll();
        if (status > 0) status = Unpause(idle);
        if (status <= 0) return status;
        if (finished) continue;
        if (outcomes_.waiting()) {  // the next requests are on their way: store one while they travel
            if ((status = outcomes_.HandOverOne()) <= 0) return status;
            continue;
        }
        const int timeout = int(std::max<long>(1, long(std::chrono::duration_cast<std::chrono::milliseconds>(idle).count())));
        if (curl_multi_poll(multi_.get(), nullptr, 0, timeout, nullptr) != CURLM_OK) return kOutOfMemory;
    }
}

ZOVRELAY_Status DownloadAll(std::vector<Download>& downloads, int packagesDirectory, int64_t maxBandwidth,
                            const Events& events, const DownloadDone& done) {
    // The parts in the order their transfers start (the engine's: largest first), made beside.
    std::vector<const Download*> order;
    for (const Download& d : downloads) order.push_back(&d);
    std::stable_sort(order.begin(), order.end(), [](const Download* a, const Download* b) { return a->size > b->size; });
    std::vector<std::string> names;
    for (const Download* d : order) names.push_back(d->part);
    PartMaker maker(packagesDirectory, std::move(names));
    if (downloads.empty()) return Engine(packagesDirectory, maxBandwidth, events, done, nullptr).Run(downloads);
    ZOVRELAY_Status status = kSuccess;
    RunBeside([&maker]() noexcept { maker.Run(); }, [&] {
        RunBeside([&maker]() noexcept { maker.Run(true); }, [&] {
            struct Stop {  // however the engine ends, the makers' threads end with it
                PartMaker& maker;
                ~Stop() { maker.Stop(); }
            } stop{maker};
            Engine engine(packagesDirectory, maxBandwidth, events, done, &maker);
            status = engine.Run(downloads);
        });
    });
    return status;
}

}  // namespace localrelay
