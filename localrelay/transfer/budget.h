// One bandwidth budget for the whole operation: a token bucket that the receiving transfers
// drain and that refills at the limit; transfers that find it empty pause until it refills.
#ifndef LOCALRELAY_BUDGET_H
#define LOCALRELAY_BUDGET_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace localrelay {

class Budget {
public:
    using Clock = std::chrono::steady_clock;
    // A limit past what a double counts exactly is no limit anyone can reach.
    explicit Budget(int64_t kibPerSecond)
        : rate_(kibPerSecond > 0 && kibPerSecond < (int64_t(1) << 40) ? double(kibPerSecond) * 1024.0 : 0.0) {}
    bool limited() const { return rate_ > 0.0; }
    double rate() const { return rate_; }  // bytes per second; 0: none
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

}  // namespace localrelay

#endif
