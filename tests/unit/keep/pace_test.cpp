// The window against a simulated line: a queue in front of a rate, and a base time.
#include "keep/pace.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <gtest/gtest.h>
#include <vector>

using namespace keep;

namespace {

constexpr double STEP = 0.001;

struct LINE_T {
    double rate = 125000; // bytes/s
    double base = 0.02;   // s
    double queued = 0;
    double now = 0;
    struct PIECE_T {
        std::size_t size;
        double sent;
        double back;
    };
    std::deque<PIECE_T> under_way;
};

struct SENDER_T {
    Pace pace;
    BaseTime base;
    Seconds least{1e9}; // another session's base
    LINE_T line;
    double acknowledged = 0;
    std::vector<double> waits;

    Time time() const
    {
        return Time(std::chrono::duration_cast<Clock::duration>(Seconds(line.now + 1)));
    }

    void step(bool has_bytes)
    {
        line.now += STEP;
        line.queued = std::max(0.0, line.queued - line.rate * STEP);
        while (!line.under_way.empty() && line.under_way.front().back <= line.now) {
            const auto piece = line.under_way.front();
            line.under_way.pop_front();
            pace.acknowledged(piece.size);
            acknowledged += static_cast<double>(piece.size);
            const Seconds round_trip(line.now - piece.sent);
            base.see(round_trip, time());
            pace.see(round_trip, base.getOr(round_trip), std::min(base.getOr(round_trip), least),
                     time());
            waits.push_back(round_trip.count() - line.base);
        }
        const std::size_t piece = pace.piece(time());
        while (has_bytes && pace.room(time()) >= piece) {
            line.queued += static_cast<double>(piece);
            line.under_way.push_back(
                {piece, line.now, line.now + line.base + line.queued / line.rate});
            pace.sent(piece);
        }
        if (has_bytes) pace.isShort();
    }

    void run(double seconds)
    {
        for (const double end = line.now + seconds; line.now < end;)
            step(true);
    }

    double longestWait() const
    {
        return *std::max_element(waits.begin(), waits.end());
    }
};

struct CASE_T {
    double rate;
    double base;
    double settle; // s
};

class LineTest : public testing::TestWithParam<CASE_T> {};

// From 33 kbit/s to 1 Gbit/s: nearly all of the rate, with a queue of about the target.
TEST_P(LineTest, IsFilledWithAShortQueue)
{
    SENDER_T sender;
    sender.line.rate = GetParam().rate;
    sender.line.base = GetParam().base;
    sender.run(GetParam().settle);
    sender.waits.clear();
    const double before = sender.acknowledged;
    sender.run(20);
    EXPECT_GT(sender.acknowledged - before, 0.93 * 20 * sender.line.rate);
    EXPECT_LT(sender.longestWait(), 0.2 + 0.25 * sender.line.base + 768 / sender.line.rate);
}

INSTANTIATE_TEST_SUITE_P(Lines, LineTest,
                         testing::Values(CASE_T{4125, 0.1, 10}, CASE_T{32000, 0.02, 5},
                                         CASE_T{125000, 0.02, 3}, CASE_T{125000, 0.6, 15},
                                         CASE_T{12.5e6, 0.02, 3}, CASE_T{12.5e6, 0.6, 20},
                                         CASE_T{125e6, 0.001, 3}));

TEST(PaceTest, FollowsALineThatBecomesSlower)
{
    SENDER_T sender;
    sender.line.rate = 1.25e6;
    sender.run(5);
    sender.line.rate = 125000;
    sender.run(4);
    sender.waits.clear();
    sender.run(10);
    EXPECT_LT(sender.longestWait(), 0.25);
}

// Its own queue must not become its base, however long it sends without a pause.
TEST(PaceTest, DoesNotTakeItsOwnQueueForTheLine)
{
    SENDER_T sender;
    sender.run(300);
    EXPECT_NEAR(sender.line.base, sender.base.getOr(Seconds(0)).count(), 0.03);
    sender.waits.clear();
    sender.run(30);
    EXPECT_LT(sender.longestWait(), 0.25);
}

// It has begun in somebody else's queue, which has gone since.
TEST(PaceTest, FindsTheBaseOfOneThatBeganInAQueue)
{
    SENDER_T sender;
    sender.line.queued = 0.15 * sender.line.rate;
    sender.line.rate /= 2; // the half of the line that the others leave
    sender.least = Seconds(sender.line.base);
    sender.pace.doubtBase();
    sender.run(5);
    EXPECT_NEAR(sender.line.base, sender.base.getOr(Seconds(0)).count(), 0.03);
    sender.waits.clear();
    sender.run(10);
    EXPECT_LT(sender.longestWait(), 0.25);
}

TEST(PaceTest, APieceTakesAtMostATwentiethOfASecond)
{
    SENDER_T sender;
    sender.run(10);
    EXPECT_LE(sender.pace.piece(sender.time()), 125000.0 / 20 * 1.1);
    EXPECT_GE(sender.pace.piece(sender.time()), PIECE_MIN);
}

} // namespace
