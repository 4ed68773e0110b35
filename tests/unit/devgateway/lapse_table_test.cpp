#include "devgateway/watchdog/lapse_table.h"

#include <gtest/gtest.h>

namespace {

constexpr char MODULE[] = "iot.gateway.x";

struct LapseTable : ::testing::Test {
    FEED_RESULT feed(const std::string &thread, std::int32_t timeout_s, std::int64_t at_ms)
    {
        return feed_thread(table, MODULE, thread, timeout_s, at_ms, late_ms);
    }
    std::size_t lapses_at(std::int64_t at_ms)
    {
        return take_lapses(table, at_ms).size();
    }
    LAPSE_TABLE_T table;
    std::int64_t late_ms = 0;
};

TEST_F(LapseTable, ReportsALapseOnceUntilTheThreadIsFedAgain)
{
    EXPECT_EQ(time_to_next_lapse_ms(table, 0), -1);
    EXPECT_EQ(feed("main", 20, 1000), FEED_FIRST);
    EXPECT_EQ(feed("main", 20, 6000), FEED_IN_TIME);
    EXPECT_EQ(time_to_next_lapse_ms(table, 6000), 20'000);
    EXPECT_EQ(lapses_at(25'999), 0U);
    const std::vector<LAPSE_T> lapses = take_lapses(table, 26'000);
    ASSERT_EQ(lapses.size(), 1U);
    EXPECT_EQ(lapses[0].module + "/" + lapses[0].thread, "iot.gateway.x/main");
    EXPECT_EQ(lapses[0].timeout_s, 20);
    EXPECT_EQ(lapses_at(90'000), 0U);
    EXPECT_EQ(time_to_next_lapse_ms(table, 90'000), -1);
    EXPECT_EQ(feed("main", 5, 90'000), FEED_AFTER_LAPSE);
    EXPECT_EQ(late_ms, 64'000);
    EXPECT_EQ(lapses_at(95'000), 1U); // the time declared last counts
}

TEST_F(LapseTable, TakesALateFeedThatNobodyMissed)
{
    EXPECT_EQ(feed("main", 1, 0), FEED_FIRST);
    EXPECT_EQ(feed("main", 1, 5000), FEED_IN_TIME);
    EXPECT_EQ(lapses_at(5000), 0U);
}

TEST_F(LapseTable, RefusesSenselessFeeds)
{
    EXPECT_EQ(feed("", 20, 0), FEED_SENSELESS);
    EXPECT_EQ(feed(std::string(WATCHED_NAME_MAX + 1, 't'), 20, 0), FEED_SENSELESS);
    EXPECT_EQ(feed("main", 0, 0), FEED_SENSELESS);
    EXPECT_EQ(feed("main", -1, 0), FEED_SENSELESS);
    EXPECT_TRUE(table.threads.empty());
    EXPECT_EQ(feed(std::string(WATCHED_NAME_MAX, 't'), INT32_MAX, 0), FEED_FIRST);
    EXPECT_GT(time_to_next_lapse_ms(table, 0), 0);
}

TEST_F(LapseTable, GivesTheOldestLapseOfAFullTableToANewThread)
{
    for (std::size_t i = 0; i < WATCHED_MAX; ++i) {
        ASSERT_EQ(feed(std::to_string(i), i == 7 ? 2 : i == 9 ? 1 : 1000, 0), FEED_FIRST);
    }
    EXPECT_EQ(feed("new", 1000, 0), FEED_TABLE_FULL);
    EXPECT_EQ(lapses_at(2000), 2U);
    EXPECT_EQ(feed("new", 1000, 2000), FEED_FIRST);
    EXPECT_EQ(table.threads.size(), WATCHED_MAX);
    EXPECT_EQ(feed("7", 1000, 2000), FEED_AFTER_LAPSE);
    EXPECT_EQ(feed("9", 1000, 2000), FEED_TABLE_FULL); // it was the one
}

} // namespace
