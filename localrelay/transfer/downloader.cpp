// The download phase of a mirror: a queue of packages, largest first, served by a libcurl multi
// handle driven from the calling thread (HTTP), or read in turn (local sources).
#include "transfer/downloader.h"
#include "transfer/http.h"
#include "transfer/package.h"
#include "base/failure.h"
#include "base/files.h"
#include "base/status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <thread>

namespace localrelay {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kProgressStep = 64 * 1024;
constexpr size_t kLocalBuffer = 64 * 1024;
constexpr long kReceiveBuffer = 256 * 1024;
// Retries: five attempts in all, pausing 1, 2, 4 and 8 s between them, or what the server asks
// with Retry-After up to 30 s. A package then holds the run for at most its deadline plus 15 s
// (or 2 min) of pauses before it is given up or handed to another source.
constexpr int kAttempts = 5;
constexpr long kRetryAfterCap = 30;
// A package may take 10 min plus the time its bytes need at 16 KiB/s (or at an eighth of
// maxbandwidth, when that is lower): a source trickling bytes just above the stall limit cannot
// hold the run for ever.
constexpr double kDeadlineBase = 600.0;
constexpr double kDeadlineRate = 16.0 * 1024;
// A part gets its resume record once it holds this much: below, fetching again costs less than
// the record's file (creating files is most of the cost of a small package).
constexpr uint64_t kRecordAfter = 256 * 1024;

std::string ResumeName(const std::string& part) {
    return part.substr(0, part.size() - std::string(".part").size()) + ".resume.part";
}

bool WriteAll(int fd, const char* data, size_t size, uint64_t at) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, size, off_t(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n, size -= size_t(n), at += uint64_t(n);
    }
    return true;
}

// The resume record beside a part: which file and which catalog entry its bytes belong to, and
// the server's validators. A part is continued only when all of these still match.
std::string ResumeRecord(const Download& d, const std::string& etag, const std::string& modified) {
    return "zovrelay-resume 2\n" + d.address + "\n" + std::to_string(d.offset) + " " + std::to_string(d.size) + " " +
           d.sha256 + " " + std::to_string(d.headroom) + "\n" + etag + "\n" + modified + "\n";
}

struct Validators {
    std::string etag, modified;
};

// The validators of a part the next request may continue, when its record matches `d`.
bool ReadResumeRecord(int directory, const Download& d, Validators& validators) {
    const int fd = OpenOwnFileAt(directory, ResumeName(d.part), O_RDONLY);
    if (fd < 0) return false;
    char buffer[8192];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (got <= 0 || size_t(got) == sizeof buffer) return false;
    const std::string text(buffer, size_t(got));
    const std::string head = ResumeRecord(d, "", "");
    const size_t fixed = head.size() - 2;  // up to the validators
    if (text.compare(0, fixed, head, 0, fixed) != 0) return false;
    const size_t lineEnd = text.find('\n', fixed);
    if (lineEnd == std::string::npos || text.size() < lineEnd + 2 || text.back() != '\n') return false;
    validators.etag = text.substr(fixed, lineEnd - fixed);
    validators.modified = text.substr(lineEnd + 1, text.size() - lineEnd - 2);
    return !validators.etag.empty() || !validators.modified.empty();
}

bool StartsWithNoCase(const char* text, size_t length, const char* prefix) {
    const size_t n = std::strlen(prefix);
    return length >= n && ::strncasecmp(text, prefix, n) == 0;
}

std::string HeaderValue(const char* text, size_t length, size_t nameLength) {
    std::string value(text + nameLength, length - nameLength);
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.pop_back();
    size_t start = 0;
    while (start < value.size() && value[start] == ' ') ++start;
    return value.substr(start);
}

std::string HostOf(const std::string& address) {
    const size_t scheme = address.find("://");
    if (scheme == std::string::npos) return "";
    const size_t end = address.find('/', scheme + 3);
    return address.substr(0, end);
}

// One bandwidth budget for the whole operation: a token bucket that the receiving transfers
// drain and that refills at the limit; transfers that find it empty pause until it refills.
class Budget {
public:
    explicit Budget(int64_t kibPerSecond) : rate_(kibPerSecond > 0 ? double(kibPerSecond) * 1024.0 : 0.0) {}
    bool limited() const { return rate_ > 0.0; }
    bool Available() {
        Refill();
        return !limited() || tokens_ > 0.0;
    }
    void Spend(size_t bytes) {
        if (limited()) tokens_ -= double(bytes);
    }
    // How long until bytes are available again.
    Clock::duration Wait() {
        Refill();
        if (!limited() || tokens_ > 0.0) return Clock::duration::zero();
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>((1.0 - tokens_) / rate_));
    }
    // A read of about a thirtieth of a second of data: small enough for the budget to hold in
    // short intervals, large enough that a fast link is not slowed by calls.
    long ChunkSize(long largest) const {
        if (!limited()) return largest;
        return long(std::clamp(rate_ / 32.0, 1024.0, double(largest)));
    }
    void SleepFor(size_t bytes) {
        Spend(bytes);
        const Clock::duration wait = Wait();
        if (wait > Clock::duration::zero()) std::this_thread::sleep_for(wait);
    }

private:
    void Refill() {
        const Clock::time_point now = Clock::now();
        tokens_ = std::min(tokens_ + std::chrono::duration<double>(now - last_).count() * rate_, rate_ / 10.0);
        last_ = now;
    }
    double rate_;
    double tokens_ = rate_ / 10.0;
    Clock::time_point last_ = Clock::now();
};

class Engine;

struct Job {
    Engine* engine = nullptr;
    Download* d = nullptr;
    int fd = -1;
    uint64_t have = 0;  // bytes of the package in the part, hashed into digest and crc
    std::unique_ptr<Sha256> digest;
    uint32_t crc = 0;
    Validators validators;  // of the bytes in the part; empty when not resumable
    bool recorded = false;  // a resume record describes the part
    bool digestChecked = false;  // the digest was taken and matched (a part a previous run completed)
    uint64_t reported = 0;
    bool begun = false;
    int attempts = 0;
    Clock::time_point notBefore{}, started{}, deadline{};
    std::string host;
    bool wholeFile = false;  // the server ignored ranges for a package inside a file: skip to it

    // The attempt under way.
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;  // libcurl reads them while the transfer runs
    char error[CURL_ERROR_SIZE] = "";
    bool checked = false, paused = false, complete = false, ranged = false;
    uint64_t skip = 0;
    long refused = 0, retryAfter = -1;
    std::string contentRange;
    Validators answered;
    ZOVRELAY_Status stop = kSuccess;  // set by the callbacks
    std::string stopReason;
};

class Engine {
public:
    Engine(int directory, int64_t maxBandwidth, const Events& events, const DownloadDone& done)
        : directory_(directory), budget_(maxBandwidth), events_(events), done_(done) {}
    ~Engine();
    ZOVRELAY_Status Run(std::vector<Download>& downloads);

    size_t Body(Job& job, const char* data, size_t size);

private:
    ZOVRELAY_Status OpenPart(Job& job, bool resumable);
    void Restart(Job& job);
    void Record(Job& job);
    ZOVRELAY_Status Begin(Job& job);
    bool Progress(Job& job, bool force);
    ZOVRELAY_Status Finish(Job& job, ZOVRELAY_Status status, std::string reason, bool transient);
    ZOVRELAY_Status Verified(Job& job);
    ZOVRELAY_Status Stopped(Job& job, const Failure& failure);
    ZOVRELAY_Status ReadLocal(Job& job);
    ZOVRELAY_Status Start(Job& job);
    ZOVRELAY_Status Done(Job& job, CURLcode result);
    void Drop(Job& job);
    static size_t OnHeader(char* data, size_t, size_t size, void* user) noexcept;
    static size_t OnBody(char* data, size_t, size_t size, void* user) noexcept;

    int directory_;
    Budget budget_;
    const Events& events_;
    const DownloadDone& done_;
    CURLM* multi_ = nullptr;
    std::vector<std::unique_ptr<Job>> jobs_;
    std::map<std::string, size_t> busy_;  // transfers running per host
    std::deque<Download*> ready_;          // final outcomes not yet handed to done_
    // The queue, kept so that each round of the loop costs what is running, not what is queued.
    std::map<std::string, std::deque<Job*>> queued_;  // never started, per host, largest first
    std::vector<Job*> retrying_;                      // waiting for their next attempt
    std::vector<Job*> paused_;                        // paused by the budget
    size_t unfinished_ = 0;                           // HTTP jobs without a final outcome
    // Set by a callback that stops the run, so that the other transfers of the same
    // curl_multi_perform call raise nothing more.
    ZOVRELAY_Status stopped_ = kSuccess;
};

Engine::~Engine() {
    for (const std::unique_ptr<Job>& job : jobs_) Drop(*job);
    for (const Download* d : ready_)  // verified, but the run stopped before anyone took them
        if (d->status > 0) ::unlinkat(directory_, d->part.c_str(), 0);
    if (multi_ != nullptr) curl_multi_cleanup(multi_);
}

// Ends the job's transfer and closes its part: kept when a record makes it resumable.
void Engine::Drop(Job& job) {
    if (job.easy != nullptr) {
        curl_multi_remove_handle(multi_, job.easy);
        curl_easy_cleanup(job.easy);
        job.easy = nullptr;
        --busy_[job.host];
    }
    curl_slist_free_all(job.headers);
    job.headers = nullptr;
    if (job.fd >= 0) {
        ::close(job.fd);
        job.fd = -1;
        if (!job.recorded || job.have == 0) {
            ::unlinkat(directory_, job.d->part.c_str(), 0);
            ::unlinkat(directory_, ResumeName(job.d->part).c_str(), 0);
        }
    }
}

ZOVRELAY_Status Engine::OpenPart(Job& job, bool resumable) {
    const Download& d = *job.d;
    job.digest = std::make_unique<Sha256>();
    job.crc = 0;
    job.have = 0;
    if (resumable && ReadResumeRecord(directory_, d, job.validators)) {
        job.fd = OpenOwnFileAt(directory_, d.part);
        struct stat info {};
        if (job.fd >= 0 && ::fstat(job.fd, &info) == 0 && uint64_t(info.st_size) >= d.headroom &&
            uint64_t(info.st_size) - d.headroom <= d.size) {
            const uint64_t held = uint64_t(info.st_size) - d.headroom;
            // What a previous run kept is hashed first, so that the whole is verified as one.
            std::vector<char> buffer(kLocalBuffer);
            while (job.have < held) {
                const ssize_t got = ::pread(job.fd, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), held - job.have)),
                                            off_t(d.headroom + job.have));
                if (got <= 0) break;
                job.digest->Update(buffer.data(), size_t(got));
                job.crc = Crc32(job.crc, buffer.data(), size_t(got));
                job.have += uint64_t(got);
            }
            if (job.have == held) {
                job.recorded = true;
                job.d->resumed = job.have;
                return kSuccess;
            }
        }
        if (job.fd >= 0) ::close(job.fd);
        job.fd = -1;
        job.digest = std::make_unique<Sha256>();
        job.crc = 0;
        job.have = 0;
        ::unlinkat(directory_, ResumeName(d.part).c_str(), 0);
    }
    job.validators = {};
    // Whatever has the name (a stale part, a planted link) goes; its record goes with it.
    constexpr int kCreate = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_RDWR;
    job.fd = ::openat(directory_, d.part.c_str(), kCreate, 0644);
    if (job.fd < 0 && errno == EEXIST) {
        ::unlinkat(directory_, d.part.c_str(), 0);
        job.fd = ::openat(directory_, d.part.c_str(), kCreate, 0644);
    }
    if (job.fd < 0 && errno == EEXIST) {
        // Something that cannot be removed has the name (a full directory): use a fresh one.
        const std::string base = d.part.substr(0, d.part.size() - std::string(".part").size());
        for (int attempt = 0; job.fd < 0 && errno == EEXIST && attempt < 16; ++attempt) {
            job.d->part = base + "." + RandomName() + ".part";
            job.fd = ::openat(directory_, d.part.c_str(), kCreate, 0644);
        }
    }
    return job.fd >= 0 ? kSuccess : Stopped(job, FromErrno(errno));
}

// Writes the part's resume record, when the server named the file's version: a killed run then
// leaves a part that the next run continues.
void Engine::Record(Job& job) {
    if (job.validators.etag.empty() && job.validators.modified.empty()) return;
    const std::string record = ResumeRecord(*job.d, job.validators.etag, job.validators.modified);
    const std::string name = ResumeName(job.d->part);
    ::unlinkat(directory_, name.c_str(), 0);
    const int fd = ::openat(directory_, name.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_WRONLY, 0644);
    job.recorded = fd >= 0 && WriteAll(fd, record.data(), record.size(), 0);
    if (fd >= 0) ::close(fd);
}

// Drops the part's bytes: the server sent the whole file, or the bytes kept no longer verify.
void Engine::Restart(Job& job) {
    if (::ftruncate(job.fd, 0) != 0) job.stop = kIoError;
    ::unlinkat(directory_, ResumeName(job.d->part).c_str(), 0);
    job.recorded = false;
    job.validators = {};
    job.have = 0;
    job.reported = 0;
    job.digest = std::make_unique<Sha256>();
    job.crc = 0;
}

ZOVRELAY_Status Engine::Begin(Job& job) {
    if (job.begun) return kSuccess;
    job.begun = true;
    job.started = Clock::now();
    return events_.Raise(ZOVRELAY_EVENT_DOWNLOADBEGIN, job.d->information, job.d->size, 0) ? kSuccess : kCancelled;
}

bool Engine::Progress(Job& job, bool force) {
    if (!force && job.have - job.reported < kProgressStep) return true;
    if (force && job.reported == job.have && job.have != 0) return true;
    job.reported = job.have;
    return events_.Raise(ZOVRELAY_EVENT_PROGRESS, job.d->information, job.d->size, job.have);
}

// The part holds `size` bytes: checks them and hands the part over, or fails the package.
ZOVRELAY_Status Engine::Verified(Job& job) {
    if (!Progress(job, true)) return kCancelled;
    const bool intact = job.have == job.d->size && (job.digestChecked || job.digest->HexDigest() == job.d->sha256);
    if (!intact) return Finish(job, kIntegrityFailed, "size or SHA-256 differs from the catalog", false);
    ::unlinkat(directory_, ResumeName(job.d->part).c_str(), 0);
    job.d->crc32 = job.crc;
    const bool closed = ::close(job.fd) == 0;
    job.fd = -1;
    if (!closed) return Stopped(job, FromErrno(errno));
    return Finish(job, kSuccess, "", false);
}

// The repository cannot take the part (a full disk, refused access): the package is reported
// failed like any other, handed over at once so that its message names the part, and the run
// stops with the failure's status.
ZOVRELAY_Status Engine::Stopped(Job& job, const Failure& failure) {
    ZOVRELAY_Status status = Begin(job);
    if (status > 0) status = Finish(job, failure.status, failure.reason, false);
    if (status > 0 && IsHttpAddress(job.d->address)) {
        ready_.pop_back();  // Finish queued it for between rounds: there will be none
        status = done_(*job.d);
    }
    return status > 0 ? failure.status : status;
}

// Records how the package went, or schedules another attempt; answers what stops the run.
ZOVRELAY_Status Engine::Finish(Job& job, ZOVRELAY_Status status, std::string reason, bool transient) {
    Download& d = *job.d;
    if (status <= 0 && transient && job.attempts < kAttempts && Clock::now() < job.deadline) {
        long pause = 1L << (job.attempts - 1);
        if (job.retryAfter >= 0) pause = std::min(job.retryAfter, kRetryAfterCap);
        job.notBefore = Clock::now() + std::chrono::seconds(pause);
        d.reason = reason;
        retrying_.push_back(&job);
        return kSuccess;
    }
    if (IsHttpAddress(d.address)) --unfinished_;
    d.status = status;
    d.reason = std::move(reason);
    d.seconds = std::chrono::duration<double>(Clock::now() - job.started).count();
    job.attempts = kAttempts + 1;  // done: never started again
    if (status <= 0) {
        d.keep = transient && job.recorded && job.have > 0;
        if (!d.keep) job.recorded = false;
        Drop(job);
        const std::string text = d.information + ": " + d.reason;
        if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, text, d.size, 0)) return kCancelled;
    } else if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, d.information, d.size, d.size)) {
        ::unlinkat(directory_, d.part.c_str(), 0);  // verified, but no one will take it now
        return kCancelled;
    }
    if (!IsHttpAddress(d.address)) return done_(d);
    ready_.push_back(&d);  // handed over between network rounds, so that storing overlaps transfers
    return kSuccess;
}

// Local sources: read in turn with a large buffer; the file system's read-ahead overlaps with
// hashing and writing, and parallel reads of one disk gained nothing measurable.
ZOVRELAY_Status Engine::ReadLocal(Job& job) {
    Download& d = *job.d;
    std::string path, error;
    if (!LocalPath(d.address, path, &error))
        return Finish(job, error == "unsupported address" ? kUnsupportedAddress : kNoSourceReachable, error, false);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a FIFO cannot hold us
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        const std::string why = fd < 0 ? std::strerror(errno) : "not a file";
        if (fd >= 0) ::close(fd);
        return Finish(job, kNoSourceReachable, path + ": " + why, false);
    }
    std::vector<char> buffer(std::min<uint64_t>(kLocalBuffer, std::max<uint64_t>(budget_.ChunkSize(kLocalBuffer), 1)));
    ZOVRELAY_Status status = kSuccess;
    std::string why;
    Failure written;
    // A package inside a file is exactly its bytes; a whole file may not run past the size.
    const uint64_t end = d.offset != 0 ? d.offset + d.size : UINT64_MAX;
    for (uint64_t at = d.offset; at < end;) {
        const ssize_t got = ::pread(fd, buffer.data(), size_t(std::min<uint64_t>(buffer.size(), end - at)), off_t(at));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            status = kIoError, why = path + ": " + std::strerror(errno);
            break;
        }
        if (got == 0) break;
        at += uint64_t(got), d.received += uint64_t(got);
        if (uint64_t(got) > d.size - job.have) {
            status = kIntegrityFailed, why = "more bytes than the catalog's size";
            break;
        }
        if (!WriteAll(job.fd, buffer.data(), size_t(got), d.headroom + job.have)) {
            written = FromErrno(errno);
            status = written.status;
            break;
        }
        job.digest->Update(buffer.data(), size_t(got));
        job.crc = Crc32(job.crc, buffer.data(), size_t(got));
        job.have += uint64_t(got);
        if (!Progress(job, false)) {
            status = kCancelled;
            break;
        }
        budget_.SleepFor(size_t(got));
    }
    ::close(fd);
    if (written.status <= 0) return Stopped(job, written);
    if (status == kCancelled || status == kIoError) return status;
    if (status <= 0) return Finish(job, status, why, false);
    return Verified(job);
}

ZOVRELAY_Status Engine::Start(Job& job) {
    Download& d = *job.d;
    ++job.attempts;
    job.checked = job.paused = job.complete = false;
    job.skip = 0;
    job.refused = 0;
    job.retryAfter = -1;
    job.contentRange.clear();
    job.answered = {};
    job.stop = kSuccess;
    job.stopReason.clear();
    job.error[0] = '\0';
    CURL* easy = curl_easy_init();
    if (easy == nullptr) return kOutOfMemory;
    job.easy = easy;
    ++busy_[job.host];
    std::string reason;
    const ZOVRELAY_Status common = SetCommonOptions(easy, *d.settings, job.error, &reason);
    if (common == kOutOfMemory) return common;
    if (common <= 0) {
        Drop(job);
        return Finish(job, common, reason, false);
    }
    const uint64_t from = job.wholeFile ? 0 : d.offset + job.have;
    job.ranged = from > 0;
    const std::string range = std::to_string(from) + "-" + std::to_string(d.offset + d.size - 1);
    const double floor = d.settings->maxBandwidth > 0 ? std::min(kDeadlineRate, d.settings->maxBandwidth * 128.0)
                                                      : kDeadlineRate;
    if (job.attempts == 1)
        job.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(kDeadlineBase + double(d.size) / floor));
    const long remaining = long(std::chrono::duration_cast<std::chrono::seconds>(job.deadline - Clock::now()).count());
    curl_easy_setopt(easy, CURLOPT_URL, d.address.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, static_cast<void*>(&job));
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, budget_.ChunkSize(kReceiveBuffer));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, std::max(remaining, 1L));
    if (job.ranged) curl_easy_setopt(easy, CURLOPT_RANGE, range.c_str());
    // Bytes kept from an earlier response continue only while the file is the same one.
    std::string ifRange;
    if (job.have > 0 && !job.validators.etag.empty()) ifRange = "If-Range: " + job.validators.etag;
    else if (job.have > 0 && !job.validators.modified.empty()) ifRange = "If-Range: " + job.validators.modified;
    job.headers = ifRange.empty() ? nullptr : curl_slist_append(nullptr, ifRange.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, job.headers);
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) return kOutOfMemory;
    return kSuccess;
}

size_t Engine::OnHeader(char* data, size_t, size_t size, void* user) noexcept {
    Job& job = *static_cast<Job*>(user);
    try {
        if (StartsWithNoCase(data, size, "HTTP/")) {  // a new response (after a redirect, say)
            job.contentRange.clear();
            job.answered = {};
            job.retryAfter = -1;
        } else if (StartsWithNoCase(data, size, "content-range:")) {
            job.contentRange = HeaderValue(data, size, 14);
        } else if (StartsWithNoCase(data, size, "etag:")) {
            job.answered.etag = HeaderValue(data, size, 5);
        } else if (StartsWithNoCase(data, size, "last-modified:")) {
            job.answered.modified = HeaderValue(data, size, 14);
        } else if (StartsWithNoCase(data, size, "retry-after:")) {
            const std::string value = HeaderValue(data, size, 12);
            // Seconds only; a date is taken as "later", the longest pause we allow.
            job.retryAfter = !value.empty() && std::isdigit(static_cast<unsigned char>(value[0]))
                                 ? std::min(std::strtol(value.c_str(), nullptr, 10), kRetryAfterCap)
                                 : kRetryAfterCap;
        }
    } catch (...) {
        job.stop = kOutOfMemory;
        return 0;
    }
    return size;
}

size_t Engine::OnBody(char* data, size_t, size_t size, void* user) noexcept {
    Job& job = *static_cast<Job*>(user);
    try {
        return job.engine->Body(job, data, size);
    } catch (...) {  // nothing may unwind through libcurl
        job.engine->stopped_ = job.stop = kOutOfMemory;
        return 0;
    }
}

size_t Engine::Body(Job& job, const char* data, size_t size) {
    Download& d = *job.d;
    if (stopped_ <= 0) return 0;
    if (!job.checked) {
        long code = 0;
        curl_easy_getinfo(job.easy, CURLINFO_RESPONSE_CODE, &code);
        if (code < 200 || code > 299) {
            job.refused = code;
            return 0;
        }
        if (code == 206) {
            const std::string expected = "bytes " + std::to_string(d.offset + job.have) + "-";
            if (!job.ranged || job.contentRange.compare(0, expected.size(), expected) != 0) {
                job.stop = kConnectionFailed, job.stopReason = "the server answered another range than asked";
                job.wholeFile = true;
                Restart(job);
                return 0;
            }
        } else {
            // The whole file: the server ignores ranges, or the file changed since the bytes kept.
            if (job.have > 0) Restart(job);
            if (job.ranged) job.wholeFile = true;
            job.skip = d.offset;
        }
        // These bytes start the part: the response's validators describe them all.
        if (!job.recorded && job.have == 0) job.validators = job.answered;
        job.checked = true;
    }
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
        job.skip -= skipped, data += skipped;
        const size_t rest = size - skipped;
        if (rest == 0) return taken;
        size = rest;
    }
    if (size > d.size - job.have) {
        if (d.offset != 0 && job.wholeFile) {  // the rest of a file that holds more than our package
            size = size_t(d.size - job.have);
            job.complete = true;
        } else {
            job.stop = kIntegrityFailed, job.stopReason = "more bytes than the catalog's size";
            return 0;
        }
    }
    if (!WriteAll(job.fd, data, size, d.headroom + job.have)) {
        const Failure failure = FromErrno(errno);
        stopped_ = job.stop = failure.status;
        job.stopReason = failure.reason;
        return 0;
    }
    job.digest->Update(data, size);
    job.crc = Crc32(job.crc, data, size);
    job.have += size;
    if (!job.recorded && job.have >= kRecordAfter) Record(job);
    if (!Progress(job, false)) {
        stopped_ = job.stop = kCancelled;
        return 0;
    }
    return job.complete ? 0 : taken;
}

// What a finished attempt means for its package.
ZOVRELAY_Status Engine::Done(Job& job, CURLcode result) {
    const Download& d = *job.d;
    long code = job.refused;
    if (code == 0) curl_easy_getinfo(job.easy, CURLINFO_RESPONSE_CODE, &code);
    long proxyCode = 0, proxyError = 0;
    curl_easy_getinfo(job.easy, CURLINFO_HTTP_CONNECTCODE, &proxyCode);
#if LIBCURL_VERSION_NUM >= 0x074900
    curl_easy_getinfo(job.easy, CURLINFO_PROXY_ERROR, &proxyError);
#endif
    const std::string curlReason = job.error[0] != '\0' ? job.error : curl_easy_strerror(result);
    curl_multi_remove_handle(multi_, job.easy);
    curl_easy_cleanup(job.easy);
    job.easy = nullptr;
    curl_slist_free_all(job.headers);
    job.headers = nullptr;
    --busy_[job.host];

    if (job.stop == kCancelled || job.stop == kOutOfMemory) return job.stop;
    if (job.stop == kIoError || job.stop == kNoSpace || job.stop == kPermissionDenied)
        return Stopped(job, Failure{job.stop, job.stopReason});
    if (stopped_ <= 0) return stopped_;  // another transfer of the same round stopped the run
    if (job.stop == kIntegrityFailed) return Finish(job, kIntegrityFailed, job.stopReason, false);
    if (job.stop == kConnectionFailed) return Finish(job, kConnectionFailed, job.stopReason, true);
    if (result == CURLE_OUT_OF_MEMORY) return kOutOfMemory;
    if (job.complete || (result == CURLE_OK && code >= 200 && code <= 299)) {
        if (job.have == d.size) return Verified(job);
        return Finish(job, kConnectionFailed,
                      "the connection closed after " + std::to_string(job.have) + " of " + std::to_string(d.size) + " bytes",
                      true);
    }
    // One classification for every transfer (failure.cpp); a refused connection, a reset or a
    // timeout, and a server's 5xx or 429, are worth another attempt.
    const bool refused = code >= 300 || job.refused != 0 || result == CURLE_OK;
    const ProxySettings& proxy = d.settings->proxy;
    const Failure failure = FromCurl(refused ? CURLE_HTTP_RETURNED_ERROR : result, code, proxyCode, proxyError,
                                     proxy.used && !proxy.user.empty(), curlReason.c_str());
    const bool transient = IsTransient(failure.status, code);
    return Finish(job, failure.status, failure.reason, transient);
}

ZOVRELAY_Status Engine::Run(std::vector<Download>& downloads) {
    for (Download& d : downloads) {
        auto job = std::make_unique<Job>();
        job->engine = this;
        job->d = &d;
        job->host = HostOf(d.address);
        jobs_.push_back(std::move(job));
    }
    // Largest first, so that a big package does not finish alone at the end.
    std::stable_sort(jobs_.begin(), jobs_.end(), [](const auto& a, const auto& b) { return a->d->size > b->d->size; });

    for (const std::unique_ptr<Job>& job : jobs_) {
        if (IsHttpAddress(job->d->address)) continue;
        ZOVRELAY_Status status = OpenPart(*job, false);
        if (status > 0) status = Begin(*job);
        if (status > 0) status = ReadLocal(*job);
        if (status <= 0) return status;
    }

    for (const std::unique_ptr<Job>& job : jobs_) {
        if (!IsHttpAddress(job->d->address)) continue;
        queued_[job->host].push_back(job.get());
        ++unfinished_;
    }
    multi_ = curl_multi_init();
    if (multi_ == nullptr) return kOutOfMemory;
    for (;;) {
        const Clock::time_point now = Clock::now();
        Clock::duration idle = std::chrono::seconds(1);
        for (size_t i = 0; i < retrying_.size();) {
            Job& job = *retrying_[i];
            if (job.notBefore > now || busy_[job.host] >= kTransfersPerHost) {
                if (job.notBefore > now) idle = std::min(idle, job.notBefore - now);
                ++i;
                continue;
            }
            retrying_.erase(retrying_.begin() + long(i));
            if (const ZOVRELAY_Status status = Start(job); status <= 0) return status;
        }
        for (auto& [host, queue] : queued_) {
            while (!queue.empty() && busy_[host] < kTransfersPerHost) {
                Job& job = *queue.front();
                queue.pop_front();
                ZOVRELAY_Status status = OpenPart(job, true);
                if (status > 0) status = Begin(job);
                if (status > 0 && job.have == job.d->size) {
                    // A previous run received it all: verify it, or fetch it again from the start.
                    if (job.digest->HexDigest() == job.d->sha256) {
                        job.digestChecked = true;
                        if ((status = Verified(job)) <= 0) return status;
                        continue;
                    }
                    Restart(job);
                }
                if (status > 0) status = Start(job);
                if (status <= 0) return status;
            }
        }
        int running = 0;
        if (curl_multi_perform(multi_, &running) != CURLM_OK) return kOutOfMemory;
        int left = 0;
        bool finished = false;  // then start the next transfers before waiting for anything
        while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            finished = true;
            void* job = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &job);
            const ZOVRELAY_Status status = Done(*static_cast<Job*>(job), message->data.result);
            if (status <= 0) return status;
        }
        if (running == 0 && unfinished_ == 0) {
            for (; !ready_.empty(); ready_.pop_front())
                if (const ZOVRELAY_Status status = done_(*ready_.front()); status <= 0) return status;
            return kSuccess;
        }
        // Transfers the budget paused go on once it refilled.
        if (budget_.limited() && !paused_.empty()) {
            const Clock::duration wait = budget_.Wait();
            if (wait == Clock::duration::zero()) {
                std::vector<Job*> paused;
                paused.swap(paused_);
                for (Job* job : paused) {
                    if (job->easy == nullptr || !job->paused) continue;
                    job->paused = false;
                    curl_easy_pause(job->easy, CURLPAUSE_CONT);
                    if (job->stop == kCancelled) return kCancelled;
                }
            } else {
                idle = std::min(idle, wait);
            }
        }
        if (finished) continue;
        if (!ready_.empty()) {  // the next requests are on their way: store one while they travel
            Download& d = *ready_.front();
            ready_.pop_front();
            if (const ZOVRELAY_Status status = done_(d); status <= 0) return status;
            continue;
        }
        const int timeout = int(std::max<long>(1, long(std::chrono::duration_cast<std::chrono::milliseconds>(idle).count())));
        if (curl_multi_poll(multi_, nullptr, 0, timeout, nullptr) != CURLM_OK) return kOutOfMemory;
    }
}

}  // namespace

ZOVRELAY_Status DownloadAll(std::vector<Download>& downloads, int packagesDirectory, int64_t maxBandwidth,
                            const Events& events, const DownloadDone& done) {
    Engine engine(packagesDirectory, maxBandwidth, events, done);
    return engine.Run(downloads);
}

uint64_t ResumableBytes(int packagesDirectory, const Download& download) {
    Validators validators;
    if (!IsHttpAddress(download.address) || !ReadResumeRecord(packagesDirectory, download, validators)) return 0;
    struct stat info {};
    if (::fstatat(packagesDirectory, download.part.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
        return 0;
    const uint64_t held = uint64_t(info.st_size);
    return held > download.headroom ? std::min<uint64_t>(held - download.headroom, download.size) : 0;
}

bool IsResumablePart(int packagesDirectory, const std::string& name) {
    const std::string kRecord = ".resume.part", kPart = ".part";
    auto exists = [&](const std::string& other) {
        struct stat info {};
        return ::fstatat(packagesDirectory, other.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
    };
    if (name.size() > kRecord.size() && name.compare(name.size() - kRecord.size(), kRecord.size(), kRecord) == 0)
        return exists(name.substr(0, name.size() - kRecord.size()) + kPart);
    if (name.size() > kPart.size() && name.compare(name.size() - kPart.size(), kPart.size(), kPart) == 0)
        return exists(ResumeName(name));
    return false;
}

bool RemoveUnplannedParts(int packagesDirectory, const std::set<std::string>& names, const std::vector<Download>& planned) {
    std::set<std::string> keep;
    for (const Download& d : planned) {
        if (!d.keep) continue;
        keep.insert(d.part);
        keep.insert(ResumeName(d.part));
    }
    bool removed = false;
    for (const std::string& name : names) {
        if (name.size() < 6 || name[0] != '.' || name.compare(name.size() - 5, 5, ".part") != 0 || keep.count(name))
            continue;
        struct stat info {};
        if (::fstatat(packagesDirectory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
            removed |= ::unlinkat(packagesDirectory, name.c_str(), 0) == 0;
    }
    return removed;
}

}  // namespace localrelay
