#include "base/events.h"
#include "base/status.h"
#include "base/wide.h"

namespace localrelay {

ZOVRELAY_Status Events::Subscribe(ZOVRELAY_EventType type, ZOVRELAY_Callback callback, void* userData) {
    const auto index = static_cast<int32_t>(type);
    if (index < 0 || index >= static_cast<int32_t>(subscriptions_.size())) return kInvalidArgument;
    subscriptions_[index] = Subscription{callback, callback != nullptr ? userData : nullptr};
    return kSuccess;
}

bool Events::Raise(ZOVRELAY_EventType type, const std::string& information, uint64_t total, uint64_t finished) const {
    const Subscription& subscription = subscriptions_[static_cast<size_t>(type)];
    if (subscription.callback == nullptr) return true;
    // Our own copies: the handler may keep nothing of them, and may change the message freely.
    std::wstring text = WidenBytes(information);
    ZOVRELAY_EventMessage message{text.data(), total, finished};
    return subscription.callback(type, &message, subscription.userData) != 0;
}

}  // namespace localrelay
