#include "base/events.h"
#include "base/status.h"
#include "base/wide.h"

#include <atomic>

namespace localrelay {
namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "RequestStop runs in signal handlers");

}  // namespace

void RequestStop() noexcept { stopRequested.store(true); }
bool StopRequested() noexcept { return stopRequested.load(); }

ZOVRELAY_Status Events::Subscribe(ZOVRELAY_EventType type, ZOVRELAY_Callback callback, void* userData) {
    const auto index = static_cast<int32_t>(type);
    if (index < 0 || index >= static_cast<int32_t>(subscriptions_.size())) return kInvalidArgument;
    subscriptions_[index] = Subscription{callback, callback != nullptr ? userData : nullptr};
    return kSuccess;
}

bool Events::Raise(ZOVRELAY_EventType type, const std::string& information, uint64_t total, uint64_t finished) const {
    if (StopRequested()) return false;
    const Subscription& subscription = subscriptions_[static_cast<size_t>(type)];
    if (subscription.callback == nullptr) return true;
    // Our own copies: the handler may keep nothing of them, and may change the message freely.
    std::wstring text = WidenBytes(information);
    ZOVRELAY_EventMessage message{text.data(), total, finished};
    return subscription.callback(type, &message, subscription.userData) != 0;
}

}  // namespace localrelay
