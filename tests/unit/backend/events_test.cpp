#include "backend/observe/events.h"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

using namespace backend;

static EVENT_T eventOf(const std::string &session)
{
    return {EVENT::SESSION_BEGUN, {"pk1", "dev1"}, "ssh", session, "anna", ""};
}

TEST(Events, CallbacksMayEndAndBeginSubscriptions)
{
    std::string seen;
    std::vector<SubscriptionPtr> more;
    SubscriptionPtr third;
    const SubscriptionPtr failing =
        subscribe([](const EVENT_T &) { throw std::runtime_error(""); });
    SubscriptionPtr first;
    first = subscribe([&](const EVENT_T &event) {
        seen += "first " + event.session + ", ";
        first.reset();                // while it runs
        third.reset();                // before its turn
        for (int i = 0; i < 100; i++) // the list moves
            more.push_back(subscribe([&](const EVENT_T &it) { seen += it.session; }));
        publish(eventOf("b"));
    });
    const SubscriptionPtr second =
        subscribe([&](const EVENT_T &event) { seen += " second " + event.session; });
    third = subscribe([&](const EVENT_T &) { seen += "third"; });
    publish(eventOf("a"));
    EXPECT_EQ(seen, "first a,  second b" + std::string(100, 'b') + " second a");
    more.clear();
    seen.clear();
    publish(eventOf("c"));
    EXPECT_EQ(seen, " second c");
}
