// Event subscriptions of a context, and raising an event to its subscriber.
#ifndef LOCALRELAY_EVENTS_H
#define LOCALRELAY_EVENTS_H

#include "zovrelay.h"

#include <array>
#include <cstdint>
#include <string>

namespace localrelay {

// A request that every running operation of the process stop, as if a handler had answered 0
// (set from a signal handler: lock-free). Every event raised afterwards answers "cancelled".
void RequestStop() noexcept;
bool StopRequested() noexcept;

class Events {
public:
    // One callback per type: a later subscription replaces the earlier, a null callback removes
    // it. kInvalidArgument for a type outside 0-5, which this library never raises.
    ZOVRELAY_Status Subscribe(ZOVRELAY_EventType type, ZOVRELAY_Callback callback, void* userData);

    // Calls the subscriber, if any, synchronously. False when it answered 0, or a stop was
    // requested: the running operation is then cancelled.
    bool Raise(ZOVRELAY_EventType type, const std::string& information, uint64_t total, uint64_t finished) const;

private:
    struct Subscription {
        ZOVRELAY_Callback callback = nullptr;
        void* userData = nullptr;
    };
    std::array<Subscription, 6> subscriptions_{};
};

}  // namespace localrelay

#endif
