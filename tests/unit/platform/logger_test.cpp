#include "platform/logger/log_output.h"
#include "platform/logger/logger.h"
#include "platform/logger/logger_internal.h"
#include "utility/handles.h"
#include "utility/utf8.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

constexpr char NO_CONF[] = "/nonexistent/logger.conf";

// Takes the place of standard error: a pipe that is emptied on request. Nothing waits for it.
class StderrPipe {
public:
    StderrPipe() : saved_{::dup(STDERR_FILENO)}
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
        out_.reset(ends[0]);
        log_init_from("test", 1, 1, 1, NO_CONF);
    }
    ~StderrPipe()
    {
        ::dup2(saved_.get(), STDERR_FILENO);
    }
    void drain(std::string &text)
    {
        char piece[4096];
        for (ssize_t n = 0; (n = ::read(out_.get(), piece, sizeof piece)) > 0;) {
            text.append(piece, static_cast<std::size_t>(n));
        }
    }

private:
    UniqueFd saved_;
    UniqueFd out_;
};

// Log lines of a program with the given level, the text alone.
template <class Calls> std::string logged(int min_level, Calls calls, const char *conf = NO_CONF)
{
    testing::internal::CaptureStderr();
    log_init_from("test", 1, min_level, 1, conf);
    calls();
    return testing::internal::GetCapturedStderr();
}

#define LOG(level, ...) log_print(level, "color", "tag", "src/a.cpp", "main", 120, __VA_ARGS__)

TEST(Logger, WritesTheFullLineForEachLevel)
{
    testing::internal::CaptureStderr();
    log_init_from("a_module", 1, 0, 2, NO_CONF);
    for (int level = 0; level < 4; ++level) {
        LOG(level, "text %d of %s", level, "it");
    }
    std::string pattern;
    for (const char *line : {"D a_module src/a.cpp:120 main: text 0", "I a_module .* text 1",
                             "W a_module .* text 2", "E a_module .* text 3"}) {
        pattern += "[0-9-]{10}T[0-9:]{8}[.][0-9]{3}Z " + std::string(line) + " of it\n";
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::MatchesRegex(pattern));
}

TEST(Logger, EscapesControlBytesAndBrokenUtf8)
{
    using namespace std::string_literals;
    const struct {
        std::string raw, escaped;
    } rows[] = {
        {"plain \\ \"text\" ~", "plain \\ \"text\" ~"},
        {"\r\n\t"s, "\\r\\n\\t"},
        {"a\0b\x1b[0m\x1f\x7f"s, "a\\x00b\\x1b[0m\\x1f\\x7f"},
        {"\xc2\xa0 \xc3\xa4 \xe2\x82\xac \xef\xbf\xbf \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"s,
         "\xc2\xa0 \xc3\xa4 \xe2\x82\xac \xef\xbf\xbf \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"s},
        {"\xc2\x80\xc2\x85\xc2\x9f"s, "\\xc2\\x80\\xc2\\x85\\xc2\\x9f"},
        {"\xe2\x80\xa7\xe2\x80\xa8\xe2\x80\xa9"s, "\xe2\x80\xa7\\xe2\\x80\\xa8\\xe2\\x80\\xa9"},
        {"\x80\xff\xfe"s, "\\x80\\xff\\xfe"},
        {"\xc0\xaf\xc1\xbf\xe0\x9f\xbf\xf0\x8f\xbf\xbf"s, // overlong
         "\\xc0\\xaf\\xc1\\xbf\\xe0\\x9f\\xbf\\xf0\\x8f\\xbf\\xbf"},
        {"\xed\xa0\x80\xed\xbf\xbf"s, "\\xed\\xa0\\x80\\xed\\xbf\\xbf"}, // surrogates
        {"\xf4\x90\x80\x80\xf5\x80\x80\x80"s, "\\xf4\\x90\\x80\\x80\\xf5\\x80\\x80\\x80"},
        {"\xe2\x82"s, "\\xe2\\x82"}, // broken off at the end
        {"\xe2\x82z\xf0\x9f\x98 \xc3"s, "\\xe2\\x82z\\xf0\\x9f\\x98 \\xc3"},
    };
    for (const auto &row : rows) {
        std::string escaped(escaped_size(row.raw.size()), '?');
        escaped.resize(escape_log_text(row.raw, escaped.data()));
        EXPECT_EQ(escaped, row.escaped);
        EXPECT_TRUE(is_utf8(escaped));
    }
}

TEST(Logger, KeepsEveryTextOnOneLineAndCutsItBetweenCharacters)
{
    const std::string longest(4096, 'x');
    const std::string_view x = longest;
    const auto after = [x](std::size_t count, const char *rest) {
        return std::string{x.substr(0, count)} + rest;
    };
    const struct {
        std::string text, line;
    } rows[] = {
        {"a\r\n", "a\n"},
        {"a\n\n", "a\\n\n"},
        {"\n", "\n"},
        {"a\n\r", "a\\n\\r\n"},
        {"x\n2026-01-01T00:00:00.000Z E forged: line\n",
         "x\\n2026-01-01T00:00:00.000Z E forged: line\n"},
        {after(4096, ""), after(4096, "\n")},
        {after(4096, "\r\n"), after(4096, "\n")},
        {after(4096, "x"), after(4096, "...\n")},
        {after(4096, "\n\n"), after(4096, "...\n")},
        {std::string(1 << 20, 'x'), after(4096, "...\n")},
        {after(4094, "\xc3\xa4"), after(4094, "\xc3\xa4\n")},
        {after(4094, "\xc3\xa4z"), after(4094, "\xc3\xa4...\n")},
        {after(4095, "\xc3\xa4"), after(4095, "...\n")},
        {after(4094, "\xe2\x82\xac"), after(4094, "...\n")},
        {after(4093, "\xf0\x9f\x98\x80"), after(4093, "...\n")},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(logged(1, [&] { LOG(1, "%s", row.text.c_str()); }), row.line) << row.text.size();
    }
    const std::string worst = logged(1, [] { LOG(1, "%s", std::string(9000, '\x01').c_str()); });
    EXPECT_EQ(worst.size(), 4 * 4096 + 4U);
}

TEST(Logger, FormatsNothingBelowTheLevelAndKeepsErrno)
{
    // A text at address 1 ends the test as soon as it is read.
    const auto *const unreadable = reinterpret_cast<const char *>(std::uintptr_t{1});
    const std::string lines = logged(2, [=] {
        LOG(1, "%s", unreadable);
        errno = ENOENT;
        LOG(2, "%m");
        EXPECT_EQ(errno, ENOENT);
    });
    EXPECT_EQ(lines, "No such file or directory\n");
}

TEST(Logger, NeverInterleavesLinesOfThreads)
{
    constexpr std::size_t LENGTH = 4096; // more than a pipe takes at once
    constexpr int LINES = 200;
    std::string text;
    {
        StderrPipe pipe;
        ::fcntl(STDERR_FILENO, F_SETFL, 0); // wait: each line is to arrive on a slow machine too
        std::atomic<int> running{4};
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([i, &running] {
                const std::string line(LENGTH, static_cast<char>('a' + i));
                for (int k = 0; k < LINES; ++k) {
                    LOG(1, "%s", line.c_str());
                }
                --running;
            });
        }
        while (running > 0) {
            pipe.drain(text);
        }
        pipe.drain(text);
    }
    std::istringstream lines{text};
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        ASSERT_EQ(line, std::string(LENGTH, line[0]));
    }
    EXPECT_EQ(count, 4 * LINES);
}

TEST(Logger, LosesLinesInsteadOfHangingAndStartsAnewBehindATornOne)
{
    const std::string text(3000, '\x01'); // 12,001 bytes as a line, more than a pipe takes whole
    std::string seen;
    {
        StderrPipe pipe;
        errno = ENOENT;
        for (int i = 0; i < 7; ++i) { // the pipe takes 5 of them and a part of another
            LOG(1, "%s", text.c_str());
        }
        EXPECT_EQ(errno, ENOENT);
        pipe.drain(seen);
        LOG(1, "after");
        pipe.drain(seen);
    }
    EXPECT_TRUE(seen.ends_with("\nafter\n")) << seen.substr(seen.size() - 40);
    EXPECT_GT(seen.size(), 5 * 12'000U);
}

TEST(Logger, WritesGatheredLinesInTheirPlaceAndAtTheLatestWhenToldTo)
{
    std::string seen;
    {
        StderrPipe pipe;
        const auto expect = [&](const char *lines) {
            seen.clear();
            pipe.drain(seen);
            EXPECT_EQ(seen, lines);
        };
        log_gather(1);
        LOG(1, "one");
        LOG(1, "two");
        EXPECT_EQ(log_gathered(), 8);
        expect("");
        LOG(2, "warning"); // takes the others along
        expect("one\ntwo\nwarning\n");
        LOG(1, "three");
        std::thread{[] { LOG(1, "of another thread"); }}.join();
        expect("three\nof another thread\n");
        LOG(1, "four");
        log_gather(0);
        expect("");
        log_flush();
        expect("four\n");
        EXPECT_EQ(log_gathered(), 0);

        log_gather(1);
        LOG(1, "old");
        std::this_thread::sleep_for(std::chrono::milliseconds{GATHER_MS + 20});
        LOG(1, "new");
        expect("old\nnew\n");
        const std::string text(1023, 'x');
        for (std::size_t i = 0; i <= GATHER_SIZE / 1024; ++i)
            LOG(1, "%s", text.c_str());
        EXPECT_EQ(log_gathered(), 1024); // the rest was written when it was full
        pipe.drain(seen = {});
        EXPECT_EQ(seen.size(), GATHER_SIZE);
        log_gather(0);
        log_flush();
    }
}

TEST(Logger, TakesItsLevelFromTheFile)
{
    const struct {
        const char *content;
        int result, level;
    } rows[] = {
        {" level=3\r\n", 0, 3}, {"level=4", -1, 9},   {"level=-1", -1, 9}, {"level=", -1, 9},
        {"level=10", -1, 9},    {"level = 1", -1, 9}, {"Level=1", -1, 9},  {"", -1, 9},
    };
    for (const auto &row : rows) {
        int level = 9;
        EXPECT_EQ(parse_logger_conf(row.content, &level), row.result) << row.content;
        EXPECT_EQ(level, row.level) << row.content;
    }
}

TEST(Logger, IgnoresOtherFilesWithOneWarning)
{
    const std::string fifo = testing::TempDir() + "logger_fifo." + std::to_string(::getpid());
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        std::string path;
        bool warned;
    } rows[] = {{NO_CONF, false}, {"/proc/self/cmdline", true}, {fifo, true}, {"/proc", true}};
    for (const auto &row : rows) {
        const std::string lines = logged(
            3, [] { LOG(2, "unseen"); }, row.path.c_str());
        EXPECT_EQ(lines, row.warned ? row.path + " ignored: it is not a file that holds level=0 to "
                                                 "level=3\n"
                                    : "");
    }
    ::unlink(fifo.c_str());
}

} // namespace
