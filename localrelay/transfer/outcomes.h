// How each package ends: its events, another attempt or its final outcome, and the hand-over of
// final outcomes to the caller between network rounds. Internal to the transfer layer.
#ifndef LOCALRELAY_OUTCOMES_H
#define LOCALRELAY_OUTCOMES_H

#include "base/events.h"
#include "base/failure.h"
#include "transfer/job.h"

#include <deque>
#include <string>
#include <vector>

namespace localrelay {

// Five attempts in all, pausing 1, 2, 4 and 8 s between them, or what the server asks with
// Retry-After up to 30 s.
constexpr int kAttempts = 5;

class Outcomes {
public:
    Outcomes(int directory, const Events& events, const DownloadDone& done)
        : directory_(directory), events_(events), done_(done) {}
    Outcomes(const Outcomes&) = delete;
    Outcomes& operator=(const Outcomes&) = delete;
    ~Outcomes();

    ZOVRELAY_Status Begin(Job& job);
    bool Progress(Job& job, bool force);
    // The part holds the package's size: checks it and hands it over, or fails the package.
    ZOVRELAY_Status Verified(Job& job);
    // The repository cannot take the part: the package fails, handed over at once, and the run
    // stops with the failure's status.
    ZOVRELAY_Status Stopped(Job& job, const Failure& failure);
    // Records how the package went, or (`transient`, attempts left, not `final`) schedules
    // another attempt; answers what stops the run.
    ZOVRELAY_Status Finish(Job& job, ZOVRELAY_Status status, std::string reason, bool transient, bool final = false);

    // Final outcomes of HTTP packages wait for a moment between network rounds.
    bool waiting() const { return !ready_.empty(); }
    ZOVRELAY_Status HandOverOne();
    ZOVRELAY_Status HandOverAll();

    std::vector<Job*> retrying;  // waiting for their next attempt
    size_t unfinished = 0;       // HTTP jobs without a final outcome

private:
    int directory_;
    const Events& events_;
    const DownloadDone& done_;
    std::deque<Download*> ready_;  // final outcomes not yet handed to done_
};

// The first bytes of a response: whether its status and range are what was asked (false stops
// the transfer, with job.refused or job.stop saying why).
bool CheckAnswer(Job& job);

// What a failed attempt's libcurl result and HTTP status mean (before its handle is reset).
Failure AttemptFailure(Job& job, CURLcode result, long code);

}  // namespace localrelay

#endif
