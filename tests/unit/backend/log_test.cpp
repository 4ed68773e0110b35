#include "backend/observe/log.h"
#include "backend/observe/uuid.h"

#include <fcntl.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace backend;
using Clock = std::chrono::steady_clock;

// Standard error is a pipe meanwhile.
class LogTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        before = dup(STDERR_FILENO);
        dup2(ends[1], STDERR_FILENO);
    }
    void TearDown() override
    {
        dup2(before, STDERR_FILENO);
        for (const int fd : {before, ends[0], ends[1]})
            close(fd);
    }
    std::string readSome()
    {
        std::string text(1 << 16, '\0');
        const ssize_t count = read(ends[0], text.data(), text.size());
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }
    std::string readUntil(const std::string &wanted)
    {
        std::string text;
        while (text.find(wanted) == std::string::npos)
            text += readSome();
        return text;
    }
    int ends[2] = {-1, -1};
    int before = -1;
};

static std::size_t linesOf(const std::string &text, const std::string &with)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(with); at != std::string::npos; at = text.find(with, at + 1))
        count++;
    return count;
}

TEST_F(LogTest, FloodOfOneKindIsCountedAndTheCountIsTold)
{
    {
        LINE_LIMIT_T limit("refused handshakes");
        for (int i = 0; i < 1000; i++)
            logLimited(limit, LOG_LEVEL::WARNING, "refused %d", i);
    } // before the log's thread runs, the end of the limit tells the count
    std::string text = readSome();
    EXPECT_LE(linesOf(text, "refused "), 5 + 5 + 2U); // the second may change once
    EXPECT_NE(text.find(" lines about refused handshakes left out\n"), std::string::npos) << text;

    startLog();
    static LINE_LIMIT_T quiet("lines before silence", 0);
    logLimited(quiet, LOG_LEVEL::INFO, "never seen");
    text = readUntil(" 1 line about lines before silence left out\n"); // though none follows
    EXPECT_EQ(text.find("never seen"), std::string::npos);
    logLimited(quiet, LOG_LEVEL::INFO, "never seen");
    stopLog();
    EXPECT_NE(readSome().find(" 1 line about lines before silence left out\n"), std::string::npos);
}

TEST_F(LogTest, UnreadPipeBlocksNobodyAndWhatItDidNotTakeIsCounted)
{
    startLog();
    const auto began = Clock::now();
    const std::string text(1000, 'x');
    for (int i = 0; i < 5000; i++)
        logInfo("%s", text.c_str());
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(1));
    const std::string seen = readUntil(" that found no room or memory: left out\n");
    EXPECT_LT(linesOf(seen, text + "\n"), 5000U);

    for (int i = 0; i < 5000; i++)
        logInfo("%s", text.c_str());
    const auto stopped = Clock::now();
    stopLog(std::chrono::milliseconds(300));
    logError("lost, not waited for");
    EXPECT_LT(Clock::now() - stopped, std::chrono::milliseconds(900));
}

TEST(Uuid, IsOfVersion7AndGrowsAlsoAcrossThreads)
{
    std::set<std::string> all;
    std::string last;
    std::vector<std::string> others;
    std::thread other([&] {
        for (int i = 0; i < 20000; i++)
            others.push_back(newUuid());
    });
    for (int i = 0; i < 20000; i++) { // more than a millisecond's counter has room for
        const std::string uuid = newUuid();
        EXPECT_GT(uuid, last);
        last = uuid;
        all.insert(uuid);
    }
    other.join();
    all.insert(others.begin(), others.end());
    EXPECT_EQ(all.size(), 40000U);
    EXPECT_EQ(last.size(), 36U);
    EXPECT_EQ(last[14], '7');
    EXPECT_NE(std::string("89ab").find(last[19]), std::string::npos);
}
