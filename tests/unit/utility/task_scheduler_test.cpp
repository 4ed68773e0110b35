#include "common/task_scheduler.h"
#include "tests/support/fake_logger.h"

#include <atomic>
#include <climits>
#include <functional>
#include <gmock/gmock.h>
#include <string>
#include <unistd.h>

namespace {

bool wait_until(const std::function<bool()> &condition)
{
    for (int i = 0; i < 2000 && !condition(); ++i)
        ::usleep(5000);
    return condition();
}

constexpr int FAILED = 7;
constexpr int EVERY_PASS = 5; // runs, or more

struct COUNTER_T {
    std::atomic<int> runs;
    int failures; // results before the first success
};

int count_run(TASK_NODE_T *, void *arg, DBusConnection *)
{
    auto *counter = static_cast<COUNTER_T *>(arg);
    return ++counter->runs > counter->failures ? 0 : FAILED;
}

// Passes are counted by a task of their own: what has not run in several of them does not.
bool wait_for_passes(int count)
{
    static COUNTER_T ticks{};
    const int before = ticks.runs.load();
    return addOneTask("ticker", TASK_MODE_PERIODIC, 0, 0, -1, count_run, &ticks) == 0 &&
           wait_until([&] { return ticks.runs.load() >= before + count; });
}

const struct {
    const char *name;
    int mode;
    int delay, interval, count;
    int failures; // of the function, before it succeeds
    int runs, result;
} SCHEDULES[] = {
    {"three times", TASK_MODE_PERIODIC, 0, 0, 3, 0, 3, 0},
    {"no run", TASK_MODE_PERIODIC, 0, 0, 0, 0, 0, -1},
    {"succeeds late", TASK_MODE_UNTIL_SUCCESS, 0, 0, -1, 2, 3, 0},
    {"gives up", TASK_MODE_UNTIL_SUCCESS, 0, 0, 2, 9, 2, FAILED},
    {"each second", TASK_MODE_PERIODIC, 0, 1, 2, 0, 2, 0},
    {"longest interval", TASK_MODE_PERIODIC, 0, -1, -1, 0, 1, 0},
    {"due last", TASK_MODE_PERIODIC, INT_MAX, 0, -1, 0, 0, -1},
    {"unlimited", TASK_MODE_PERIODIC, 0, 0, -1, 0, EVERY_PASS, 0},
    {"other mode", 9, 0, 0, 1, 0, EVERY_PASS, 0}, // a count does not stop it
    {"overdue", TASK_MODE_PERIODIC, -3600, 3600, -1, 0, 1, 0},
};

TEST(TaskScheduler, RunsByModeCountAndTime)
{
    static COUNTER_T counters[std::size(SCHEDULES)];
    ASSERT_EQ(0, initDelayWorker());
    for (std::size_t i = 0; i < std::size(SCHEDULES); ++i) {
        const auto &row = SCHEDULES[i];
        counters[i].runs = 0;
        counters[i].failures = row.failures;
        ASSERT_EQ(0, addOneTask(row.name, row.mode, row.delay, row.interval, row.count, count_run,
                                &counters[i]));
    }
    ASSERT_TRUE(wait_for_passes(6));
    for (std::size_t i = 0; i < std::size(SCHEDULES); ++i) {
        const int runs = counters[i].runs.load();
        EXPECT_EQ(SCHEDULES[i].runs, std::min(runs, EVERY_PASS)) << SCHEDULES[i].name;
        EXPECT_EQ(SCHEDULES[i].result, getOneTaskResult(SCHEDULES[i].name)) << SCHEDULES[i].name;
    }
    EXPECT_EQ(0, releaseDelayWorker());
}

std::string order; // of the worker until it is stopped

int note_name(TASK_NODE_T *task, void *, DBusConnection *)
{
    order += task->repeat_count == -1 ? task->task_name : "?"; // no limit stays no limit
    return 0;
}

// A function may add tasks, which then start in one pass, and re-arm itself: what it returns
// still overrides the result of the re-arming.
int add_letters(TASK_NODE_T *task, void *, DBusConnection *)
{
    order += "+";
    int result = 0;
    for (const char *name : {"a", "b", "c"}) {
        result |= addOneTask(name, TASK_MODE_PERIODIC, 0, 0, -1, note_name, nullptr);
    }
    return result |
           addOneTask(task->task_name, TASK_MODE_UNTIL_SUCCESS, 0, 0, -1, add_letters, nullptr);
}

TEST(TaskScheduler, ReArmingKeepsThePlace)
{
    order.clear();
    ASSERT_EQ(0, initDelayWorker());
    ASSERT_EQ(0, addOneTask("adder", TASK_MODE_PERIODIC, 0, 0, -1, add_letters, nullptr));
    ASSERT_TRUE(wait_until([] { return getOneTaskResult("c") == 0; }));
    ASSERT_EQ(0, addOneTask("b", TASK_MODE_PERIODIC, 0, 0, -1, note_name, nullptr));
    ASSERT_TRUE(wait_for_passes(2));
    ASSERT_EQ(0, addOneTask("a", TASK_MODE_PERIODIC, 3600, 0, -1, note_name, nullptr));
    EXPECT_EQ(-1, getOneTaskResult("a"));
    ASSERT_TRUE(wait_for_passes(2));
    ASSERT_EQ(0, releaseDelayWorker());
    EXPECT_THAT(order, testing::MatchesRegex("[+](abc)+(bc)+"));
}

TEST(TaskScheduler, ChecksNamesAndReportsItsLife)
{
    static COUNTER_T counter;
    const std::string name(63, 'n');
    const std::string too_long(64, 'n');
    fake_logger::take();
    for (int i = 0; i < 2; ++i) { // once released, it starts afresh
        EXPECT_EQ(0, releaseDelayWorker());
        EXPECT_EQ(-1, getOneTaskResult("sys_default_task"));
        ASSERT_EQ(0, initDelayWorker());
    }
    EXPECT_EQ(0, initDelayWorker());
    EXPECT_EQ(-1, delOneTask(nullptr));
    EXPECT_EQ(-1, getOneTaskResult(nullptr));
    EXPECT_EQ(-1, addOneTask(nullptr, 0, 0, 0, 1, count_run, &counter));
    EXPECT_EQ(-1, addOneTask(too_long.c_str(), 0, 0, 0, 1, count_run, &counter));
    EXPECT_EQ(-1, delOneTask(too_long.c_str()));
    EXPECT_EQ(-1, addOneTask("name", 0, 0, 0, 1, nullptr, &counter));
    EXPECT_EQ(0, addOneTask(name.c_str(), 0, 0, 0, -1, count_run, &counter));
    EXPECT_TRUE(wait_until([&] { return getOneTaskResult(name.c_str()) == 0; }));
    EXPECT_EQ(0, delOneTask(name.c_str()));
    const int runs = counter.runs.load();
    ASSERT_TRUE(wait_for_passes(2));
    EXPECT_EQ(runs, counter.runs.load());
    EXPECT_EQ(0, releaseDelayWorker());
    const std::string log = fake_logger::take();
    for (const std::string &line :
         {std::string{"1 workerLoopThread start!"}, "1 add node(" + name + ") to list",
          "1 del node(" + name + ") from list", std::string{"2 workerLoopThread exit!"},
          std::string{"3 task name exceed the limit!|3 task name exceed the limit!|"
                      "3 task function is NULL"}}) {
        EXPECT_THAT(log, testing::HasSubstr(line));
    }
}

std::atomic<int> blocking{0}; // 1 = the function runs, 2 = it may return

int block(TASK_NODE_T *, void *, DBusConnection *)
{
    blocking.store(1);
    return wait_until([] { return blocking.load() == 2; }) ? 0 : FAILED;
}

TEST(TaskScheduler, AFunctionThatDoesNotReturnIsWaitedForInVain)
{
    blocking.store(0);
    ASSERT_EQ(0, initDelayWorker());
    ASSERT_EQ(0, addOneTask("block", TASK_MODE_PERIODIC, 0, 0, 1, block, nullptr));
    ASSERT_TRUE(wait_until([] { return blocking.load() == 1; }));
    fake_logger::take();
    EXPECT_EQ(-1, releaseDelayWorker()); // after the 5 s of every stop
    EXPECT_EQ("3 delet worker loop thread error!", fake_logger::take(3));
    blocking.store(2);
    EXPECT_EQ(0, releaseDelayWorker());
}

} // namespace
