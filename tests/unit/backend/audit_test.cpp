#include "backend/observe/audit.h"
#include "backend/observe/audit_chain.h"
#include "backend/observe/log.h"
#include "backend/observe/uuid.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace backend;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// How many allocations of other threads than the test's are still to fail.
static std::atomic<int> g_failing{0};
static const std::thread::id TEST_THREAD = std::this_thread::get_id();

[[gnu::noinline]] void *operator new(std::size_t size)
{
    const bool fails = g_failing > 0 && std::this_thread::get_id() != TEST_THREAD;
    void *const memory = fails && g_failing-- > 0 ? nullptr : malloc(size); // NOLINT
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    free(memory); // NOLINT
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t /*size*/) noexcept
{
    free(memory); // NOLINT
}

// The place of the io_context: callbacks wait until the test runs them.
class AuditTest : public testing::Test {
protected:
    void SetUp() override
    {
        path = testing::TempDir() + "audit-" + std::to_string(getpid()) + "-" + newUuid();
    }
    void TearDown() override
    {
        stopAudit();
        for (const char *end : {"", ".1", ".2"})
            unlink((path + end).c_str());
    }
    void start()
    {
        start(path);
    }
    void start(const std::string &to)
    {
        startAudit({to, "1.0", [this](std::function<void()> task) {
                        const std::lock_guard guard(lock);
                        tasks.push_back(std::move(task));
                        posted.notify_one();
                    }});
    }
    // False when no callback came in time.
    bool runOne(std::chrono::milliseconds bound = std::chrono::seconds(5))
    {
        std::unique_lock guard(lock);
        if (!posted.wait_for(guard, bound, [&] { return !tasks.empty(); })) return false;
        const auto task = std::move(tasks.front());
        tasks.pop_front();
        guard.unlock();
        task();
        return true;
    }
    // The outcome of a session's beginning: 1 recorded, 0 not, -1 none came.
    int begin(const std::string &id, std::chrono::milliseconds bound = std::chrono::seconds(5))
    {
        auto outcome = std::make_shared<int>(-1);
        (void)auditSessionBegin({id, "p", "d\xff\"\n", "root", "pid 1", "ssh"},
                                [outcome](bool is_recorded) { *outcome = is_recorded ? 1 : 0; });
        while (*outcome < 0 && runOne(bound)) {
        }
        return *outcome;
    }
    std::vector<std::string> lines(const std::string &end = "") const
    {
        std::ifstream file(path + end);
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);)
            all.push_back(line);
        return all;
    }
    std::string text(const std::string &end = "") const
    {
        std::ostringstream all;
        all << std::ifstream(path + end).rdbuf();
        return all.str();
    }
    std::vector<std::string> events(const std::string &end = "") const
    {
        std::vector<std::string> all;
        for (const std::string &line : lines(end)) {
            const json parsed = json::parse(line, nullptr, false);
            all.push_back(parsed.is_object() ? parsed.value("event", "") : "?");
        }
        return all;
    }
    std::string path;
    std::mutex lock;
    std::condition_variable posted;
    std::deque<std::function<void()>> tasks;
};

static std::vector<AUDIT_FINDING_T> check(const std::vector<std::string> &texts,
                                          std::size_t piece = 1 << 20)
{
    std::vector<AUDIT_FINDING_T> found;
    AuditChecker checker;
    checker.on_finding = [&](const AUDIT_FINDING_T &finding) { found.push_back(finding); };
    for (const std::string &text : texts) {
        for (std::size_t at = 0; at < text.size(); at += piece)
            checker.feed(std::string_view(text).substr(at, piece));
        checker.nextFile();
    }
    checker.finish();
    return found;
}

static void limitFiles(rlim_t size)
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST(AuditChain, EveryChangeIsFoundAtItsLine)
{
    AUDIT_CHAIN_T chain;
    std::vector<std::string> lines;
    for (int i = 0; i < 5; i++)
        lines.push_back(closeAuditLine(chain, "\"event\":\"reload\",\"n\":" + std::to_string(i)));
    const auto join = [](const std::vector<std::string> &parts) {
        std::string all;
        for (const std::string &part : parts)
            all += part;
        return all;
    };
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{1} << 20})
        EXPECT_TRUE(check({join(lines)}, piece).empty());

    // Each byte of the third line, its newline included, changed by one bit.
    for (std::size_t at = 0; at < lines[2].size(); at++) {
        auto changed = lines;
        changed[2][at] = static_cast<char>(changed[2][at] ^ 1);
        const auto found = check({join(changed)});
        ASSERT_FALSE(found.empty()) << at;
        EXPECT_EQ(found.front().line, 3U) << at << ": " << found.front().text;
    }
    struct CASE_T {
        const char *what;
        std::vector<std::string> lines;
        AUDIT_FAULT fault;
        std::uint64_t line;
    };
    AUDIT_CHAIN_T forged{2, nlohmann::json::parse(lines[1])["hash"]};
    const std::string other = closeAuditLine(forged, "\"event\":\"reload\",\"n\":99");
    const std::string cut = lines[4].substr(0, 40);
    const std::vector<CASE_T> cases = {
        {"first taken out", {lines[1], lines[2]}, AUDIT_FAULT::MISSING, 1},
        {"two taken out", {lines[0], lines[3], lines[4]}, AUDIT_FAULT::MISSING, 2},
        {"exchanged", {lines[0], lines[2], lines[1]}, AUDIT_FAULT::MISSING, 2},
        {"repeated", {lines[0], lines[1], lines[1]}, AUDIT_FAULT::MISSING, 3},
        {"replaced with a good hash",
         {lines[0], lines[1], other, lines[3]},
         AUDIT_FAULT::MISSING,
         4},
        {"put in", {lines[0], "hello\n", lines[1]}, AUDIT_FAULT::NO_LINE, 2},
        {"too long",
         {lines[0], std::string(200000, 'x') + "\n", lines[1]},
         AUDIT_FAULT::NO_LINE,
         2},
        {"cut", {lines[0], lines[1], cut}, AUDIT_FAULT::UNENDED, 3},
    };
    for (const CASE_T &row : cases) {
        const auto found = check({join(row.lines)});
        ASSERT_FALSE(found.empty()) << row.what;
        EXPECT_EQ(found.front().fault, row.fault) << row.what << ": " << found.front().text;
        EXPECT_EQ(found.front().line, row.line) << row.what;
    }
}

TEST_F(AuditTest, SessionIsOnTheDiskBeforeItMayBeginAndItsTextsAreJson)
{
    start();
    const std::string id = newUuid();
    ASSERT_EQ(begin(id), 1);
    EXPECT_EQ(events(), (std::vector<std::string>{"back_end_started", "session_begin"}));
    auditSessionEnd(id, {3, 4, true, "done", "00000009"});
    auditSessionEnd(id, {});                                              // the first one counts
    EXPECT_THROW(startAudit({path, "1.0", nullptr}), std::runtime_error); // one writer to a file
    EXPECT_TRUE(stopAudit());
    ASSERT_EQ(lines().size(), 4U);
    const json end = json::parse(lines()[2]);
    EXPECT_EQ(end["session"], id);
    EXPECT_EQ(end["bytes_up"], 3);
    EXPECT_EQ(end["whole"], true);
    EXPECT_EQ(end["device"], "d\xef\xbf\xbd\"\n");
    EXPECT_TRUE(check({text()}).empty());
}

// What a killed back end leaves: a session that stands open, and half a line.
TEST_F(AuditTest, NextStartClosesWhatACrashLeftOpenAndNamesTheTornLine)
{
    const std::string id = newUuid();
    const std::string ended = newUuid();
    const pid_t child = fork();
    if (child == 0) {
        start();
        const bool is_good = begin(ended) == 1 && begin(id) == 1;
        auditSessionEnd(ended, {});
        const bool is_ended = begin(newUuid()) == 1; // so the end is on the disk as well
        (void)kill(getpid(), is_good && is_ended ? SIGKILL : SIGTERM);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(WTERMSIG(status), SIGKILL);
    std::ofstream(path, std::ios::app) << R"({"seq":6,"time":"2026)";
    EXPECT_EQ(check({text()}).size(), 1U);

    start();
    EXPECT_TRUE(stopAudit());
    const auto found = check({text()});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].fault, AUDIT_FAULT::TORN);
    EXPECT_EQ(found[0].line, 6U);
    const auto seen = events();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "session_interrupted"), 2);
    EXPECT_EQ(text().find("session_interrupted\",\"session\":\"" + ended), std::string::npos);
    const json last = json::parse(lines()[8]);
    EXPECT_EQ(last["event"], "session_interrupted");
    EXPECT_EQ(last["service"], "ssh");

    // Nothing stands open any more. A last line that lacks its newline only is whole.
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
    start();
    EXPECT_TRUE(stopAudit());
    EXPECT_EQ(events().size(), seen.size() + 2);
    EXPECT_EQ(check({text()}).size(), 1U);
}

TEST_F(AuditTest, FullDiskRefusesWhatBeginsKeepsTheEndsAndRecovers)
{
    (void)signal(SIGXFSZ, SIG_IGN);
    start();
    const std::string id = newUuid();
    ASSERT_EQ(begin(id), 1);
    limitFiles(std::filesystem::file_size(path) + 20); // a line is torn there
    EXPECT_EQ(begin(newUuid()), 0);
    EXPECT_FALSE(auditAccepts());
    EXPECT_EQ(begin(newUuid()), 0);
    auditSessionEnd(id, {1, 2, true, "kept", ""});
    limitFiles(RLIM_INFINITY);
    const auto until = Clock::now() + std::chrono::seconds(5);
    while (!auditAccepts() && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(begin(newUuid()), 1);
    EXPECT_NE(text().find("\"reason\":\"kept\""), std::string::npos);
    EXPECT_TRUE(stopAudit());
    EXPECT_TRUE(check({text()}).empty());
}

TEST_F(AuditTest, RotatedFileGoesOnWithTheChainAndTheOpenSessions)
{
    (void)signal(SIGXFSZ, SIG_IGN);
    start();
    const std::string id = newUuid();
    ASSERT_EQ(begin(id), 1);
    reopenAudit(); // the same file: nothing happens
    std::filesystem::rename(path, path + ".2");
    reopenAudit();
    ASSERT_EQ(begin(newUuid()), 1);
    EXPECT_EQ(events(), (std::vector<std::string>{"continued", "session_open", "session_begin"}));
    EXPECT_EQ(json::parse(lines()[1])["session"], id);

    // Rotation frees what was full: what the old file did not take whole goes into the new one.
    limitFiles(std::filesystem::file_size(path) + 20);
    EXPECT_EQ(begin(newUuid()), 0);
    std::filesystem::rename(path, path + ".1");
    limitFiles(RLIM_INFINITY);
    reopenAudit();
    const auto until = Clock::now() + std::chrono::seconds(5);
    while (!auditAccepts() && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auditSessionEnd(id, {});
    EXPECT_TRUE(stopAudit());
    EXPECT_TRUE(check({text(".2"), text(".1"), text()}).empty());
    EXPECT_TRUE(check({text(".1"), text()}).empty()); // the oldest may be gone
    EXPECT_FALSE(check({text(".2"), text()}).empty());

    // A start between the rotation and the word of it.
    std::filesystem::rename(path, path + ".1");
    start();
    EXPECT_TRUE(stopAudit());
    EXPECT_TRUE(check({text(".1"), text()}).empty());
    EXPECT_EQ(events()[0], "continued");
}

TEST_F(AuditTest, UnreadPipeBlocksNobodyAndStopsInTime)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    start();
    const std::string id = newUuid();
    EXPECT_EQ(begin(id), 1); // a pipe that has room counts as recorded
    const auto began = Clock::now();
    int accepted = 0;
    while (auditRecord(AUDIT_EVENT::RELOAD, {{"reason", std::string(1000, 'x')}}))
        accepted++;
    EXPECT_GT(accepted, 1000);
    EXPECT_FALSE(auditAccepts());
    EXPECT_EQ(begin(newUuid()), 0);
    auditSessionEnd(id, {});
    EXPECT_FALSE(stopAudit(std::chrono::milliseconds(200)));
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(2));
    close(reader);
}

TEST_F(AuditTest, FloodOfStrangersIsCounted)
{
    start();
    for (int i = 0; i < 5000; i++)
        auditRecord(AUDIT_EVENT::HANDSHAKE_REFUSED, {{"device", "x"}});
    EXPECT_TRUE(stopAudit());
    const auto all = lines();
    ASSERT_LT(all.size(), 120U);
    const json count = json::parse(all[all.size() - 2]);
    EXPECT_EQ(count["event"], "left_out");
    EXPECT_EQ(count["of"], "handshake_refused");
    EXPECT_EQ(count["count"].get<std::size_t>() + all.size() - 3, 5000U);
}

// Whatever allocation it is that fails. Nobody is told more than is so, and the chain holds.
TEST_F(AuditTest, MemoryThatRunsOutInItsThreadIsAsADiskThatFails)
{
    startLog();
    start();
    const auto accepts = [] {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (!auditAccepts() && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return auditAccepts();
    };
    int recorded = 0;
    for (int failing = 1; failing <= 12; failing++) {
        ASSERT_TRUE(accepts());
        g_failing = failing;
        recorded += begin(newUuid(), std::chrono::seconds(10)) == 1 ? 1 : 0;
        logInfo("a line for the log's thread");
        g_failing = 0;
    }
    ASSERT_TRUE(accepts());
    EXPECT_EQ(begin(newUuid(), std::chrono::seconds(10)), 1);
    EXPECT_TRUE(stopAudit());
    stopLog();
    const auto all = events();
    EXPECT_GT(std::count(all.begin(), all.end(), "session_begin"), recorded);
    EXPECT_TRUE(check({text()}).empty());
}
