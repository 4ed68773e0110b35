#include "devgateway/module.h"
#include "devgateway/mqtt_bridge/subscriptions.h"

#include <gmock/gmock.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

TEST(Subscriptions, TellEachSubscriberOfATopicOnce)
{
    SUBSCRIPTIONS_T table;
    remember_subscription(table, "a/b", "iot.gateway.x", 0);
    remember_subscription(table, "a/#", "iot.gateway.x", 1);
    remember_subscription(table, "a/#", "iot.gateway.y", 0);
    remember_subscription(table, "a/b", "iot.gateway.x", 2); // again, with another QoS
    EXPECT_EQ(table.qos.size(), 3U);
    EXPECT_THAT(subscribers_of(table, "a/b"), ElementsAre("iot.gateway.x", "iot.gateway.y"));
    EXPECT_THAT(subscribers_of(table, "b"), IsEmpty());
    EXPECT_THAT(subscribed_topics(table), ElementsAre(Pair("a/#", 1), Pair("a/b", 2)));
}

TEST(Subscriptions, KeepRoomForThoseTheyHave)
{
    SUBSCRIPTIONS_T table;
    for (std::size_t i = 0; i < SUBSCRIPTIONS_MAX; ++i) {
        ASSERT_TRUE(has_room_for(table, std::to_string(i), "iot.gateway.x"));
        remember_subscription(table, std::to_string(i), "iot.gateway.x", 0);
    }
    EXPECT_FALSE(has_room_for(table, "new", "iot.gateway.x"));
    EXPECT_TRUE(has_room_for(table, "0", "iot.gateway.x"));
}

TEST(ModuleName, IsABusNameThatMakesAPath)
{
    for (const char *good : {"iot.gateway.remote_access_daemon", "a.b", "_1._2"}) {
        EXPECT_TRUE(is_module_name(good)) << good;
    }
    for (const char *bad : {"", "a", ".a.b", "a.b.", "a..b", "a.1b", "a.b-c", "a.b c", ":1.7"}) {
        EXPECT_FALSE(is_module_name(bad)) << bad;
    }
    EXPECT_TRUE(is_module_name("a." + std::string(253, 'b')));
    EXPECT_FALSE(is_module_name("a." + std::string(254, 'b')));
}

} // namespace
