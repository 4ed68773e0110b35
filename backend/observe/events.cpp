#include "backend/observe/events.h"

#include "backend/observe/log.h"

#include <exception>
#include <utility>
#include <vector>

namespace backend {

struct SUBSCRIBER_T {
    EventCallback callback;
    bool is_ended = false;
};
using SubscriberPtr = std::shared_ptr<SUBSCRIBER_T>;

struct SUBSCRIBERS_T {
    std::vector<SubscriberPtr> all;
    int depth = 0; // of events being published: `all` only grows meanwhile
};
static constinit SUBSCRIBERS_T g_subscribers;

static constinit LINE_LIMIT_T g_untold{"events that could not be told"};

static void removeEnded() noexcept
{
    if (g_subscribers.depth > 0) return;
    g_subscribers.depth++; // what a callback holds may end subscriptions, too
    std::erase_if(g_subscribers.all, [](const auto &subscriber) { return subscriber->is_ended; });
    g_subscribers.depth--;
}

struct SUBSCRIPTION_T {
    explicit SUBSCRIPTION_T(EventCallback callback)
    {
        subscriber->callback = std::move(callback);
        g_subscribers.all.push_back(subscriber);
    }
    SUBSCRIPTION_T(const SUBSCRIPTION_T &) = delete;
    SUBSCRIPTION_T &operator=(const SUBSCRIPTION_T &) = delete;
    ~SUBSCRIPTION_T()
    {
        subscriber->is_ended = true;
        removeEnded();
    }
    SubscriberPtr subscriber = std::make_shared<SUBSCRIBER_T>();
};

SubscriptionPtr subscribe(EventCallback callback)
{
    return std::make_shared<SUBSCRIPTION_T>(std::move(callback));
}

static void tell(const SUBSCRIBER_T &subscriber, const EVENT_T &event) noexcept
{
    if (subscriber.is_ended) return;
    try {
        subscriber.callback(event);
    } catch (const std::exception &fault) {
        logLimited(g_untold, LOG_LEVEL::WARNING, "an event could not be told: %s", fault.what());
    }
}

void publish(const EVENT_T &event) noexcept
{
    const std::size_t count = g_subscribers.all.size(); // those that come meanwhile do not see it
    if (count == 0) return;
    g_subscribers.depth++;
    for (std::size_t i = 0; i < count; i++) {
        const SubscriberPtr subscriber = g_subscribers.all[i]; // the list may move
        tell(*subscriber, event);
    }
    g_subscribers.depth--;
    removeEnded();
}

} // namespace backend
