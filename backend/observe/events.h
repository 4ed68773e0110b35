// What happens to devices and sessions, for those who want to see it at once.
// Threads   the thread of the io_context.
// Ownership a subscription is its holder's; it ends with it. A callback may end subscriptions,
//           begin others, which do not see this event, and cause further events.
// Failure   what a callback throws is logged, and the others are called.
// Cost      without a subscription an event costs a look at an empty list.
#pragma once

#include "backend/device_key.h"

#include <functional>
#include <memory>
#include <string>

namespace backend {

enum class EVENT { DEVICE_CONNECTED, DEVICE_DISCONNECTED, SESSION_BEGUN, SESSION_ENDED };

struct EVENT_T {
    EVENT kind;
    DEVICE_KEY_T device;
    std::string service; // of a session
    std::string session; // its number
    std::string who;     // the operator of a session
    std::string reason;  // of an end
};

using EventCallback = std::function<void(const EVENT_T &)>;
struct SUBSCRIPTION_T;
using SubscriptionPtr = std::shared_ptr<SUBSCRIPTION_T>;

[[nodiscard]] SubscriptionPtr subscribe(EventCallback callback);
void publish(const EVENT_T &event) noexcept;

} // namespace backend
