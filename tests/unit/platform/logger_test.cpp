#include "platform/logger/logger.h"
#include "platform/logger/logger_internal.h"
#include "utility/handles.h"
#include "utility/utf8.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

constexpr char NO_CONF[] = "/nonexistent/logger.conf";

// Takes the place of standard error: a pipe and a thread that empties it.
class StderrCapture {
public:
    StderrCapture() : saved_{::dup(STDERR_FILENO)}
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
        reader_ = std::thread{[this, out = UniqueFd{ends[0]}] {
            char piece[4096];
            for (ssize_t n = 0; (n = ::read(out.get(), piece, sizeof piece)) > 0;) {
                text_.append(piece, static_cast<std::size_t>(n));
            }
        }};
    }
    ~StderrCapture()
    {
        (void)text();
    }

    std::string text()
    {
        if (reader_.joinable()) {
            ::dup2(saved_.get(), STDERR_FILENO);
            reader_.join();
        }
        return text_;
    }

private:
    UniqueFd saved_;
    std::thread reader_;
    std::string text_;
};

// Log lines of a program with the given level, the text alone.
template <class Calls> std::string logged(int min_level, Calls calls, const char *conf = NO_CONF)
{
    StderrCapture capture;
    log_init_from("test", 1, min_level, 1, conf);
    calls();
    return capture.text();
}

#define LOG(level, ...) log_print(level, "color", "tag", "src/a.cpp", "main", 120, __VA_ARGS__)

std::string utc_now()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc)};
}

TEST(Logger, WritesTheFullLineForEachLevel)
{
    const std::string before = utc_now();
    StderrCapture capture;
    log_init_from("a_module", 1, 0, 2, NO_CONF);
    for (int level = 0; level < 4; ++level) {
        LOG(level, "text %d of %s", level, "it");
    }
    std::string lines = capture.text();
    EXPECT_LE(before, lines.substr(0, before.size()));
    EXPECT_GE(utc_now(), lines.substr(0, before.size()));
    for (std::size_t start = 0; start < lines.size(); start = lines.find('\n', start) + 1) {
        for (std::size_t i = start; i < std::min(start + 23, lines.size()); ++i) {
            if (lines[i] >= '0' && lines[i] <= '9') lines[i] = '9';
        }
    }
    EXPECT_EQ(lines, "9999-99-99T99:99:99.999Z D a_module src/a.cpp:120 main: text 0 of it\n"
                     "9999-99-99T99:99:99.999Z I a_module src/a.cpp:120 main: text 1 of it\n"
                     "9999-99-99T99:99:99.999Z W a_module src/a.cpp:120 main: text 2 of it\n"
                     "9999-99-99T99:99:99.999Z E a_module src/a.cpp:120 main: text 3 of it\n");
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

TEST(Logger, DropsOneLineEndAndKeepsEveryTextOnOneLine)
{
    const struct {
        const char *text, *line;
    } rows[] = {
        {"", "\n"},
        {"a\n", "a\n"},
        {"a\r\n", "a\n"},
        {"a\n\n", "a\\n\n"},
        {"a\r", "a\\r\n"},
        {"\n", "\n"},
        {"a\n\r", "a\\n\\r\n"},
        {"a\nb", "a\\nb\n"},
        {"x\n2026-01-01T00:00:00.000Z E forged: line\n",
         "x\\n2026-01-01T00:00:00.000Z E forged: line\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(logged(1, [&] { LOG(1, "%s", row.text); }), row.line);
    }
}

TEST(Logger, CutsLongTextsBetweenCharacters)
{
    const auto repeated = [](std::size_t count, const std::string &rest) {
        return std::string(count, 'x') + rest;
    };
    const struct {
        std::string text;
        std::size_t kept;
        bool cut;
    } rows[] = {
        {repeated(4095, ""), 4095, false},
        {repeated(4096, ""), 4096, false},
        {repeated(4096, "\r\n"), 4096, false},
        {repeated(4097, ""), 4096, true},
        {repeated(4096, "\n\n"), 4096, true},
        {repeated(51200, ""), 4096, true},
        {repeated(1 << 20, ""), 4096, true},
        {repeated(4094, "\xc3\xa4"), 4096, false},
        {repeated(4094, "\xc3\xa4z"), 4096, true},
        {repeated(4095, "\xc3\xa4"), 4095, true},
        {repeated(4094, "\xe2\x82\xac"), 4094, true},
        {repeated(4093, "\xf0\x9f\x98\x80"), 4093, true},
    };
    for (const auto &row : rows) {
        const std::string expected = row.text.substr(0, row.kept) + (row.cut ? "...\n" : "\n");
        const auto print = [&] {
            LOG(1, "%.*s", static_cast<int>(row.text.size()), row.text.data());
        };
        EXPECT_EQ(logged(1, print), expected) << row.text.size();
    }
    const std::string worst = logged(1, [] { LOG(1, "%s", std::string(9000, '\x01').c_str()); });
    EXPECT_EQ(worst.size(), 4 * 4096 + 4U);
}

TEST(Logger, FormatsNothingBelowTheLevel)
{
    // A text at address 1 ends the test as soon as anybody reads it.
    const auto *const unreadable = reinterpret_cast<const char *>(std::uintptr_t{1});
    const std::string lines = logged(2, [=] {
        LOG(0, "%s", unreadable);
        LOG(1, "%s", unreadable);
        LOG(2, "kept");
    });
    EXPECT_EQ(lines, "kept\n");
}

TEST(Logger, KeepsErrnoAndFormatsIt)
{
    const std::string lines = logged(1, [] {
        errno = ENOENT;
        LOG(1, "%m");
        EXPECT_EQ(errno, ENOENT);
    });
    EXPECT_EQ(lines, "No such file or directory\n");
}

TEST(Logger, NeverInterleavesLinesOfThreads)
{
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    constexpr std::size_t LENGTH = 4096; // with its head more than a pipe takes at once
    StderrCapture capture;
    log_init_from("test", 1, 1, 2, NO_CONF);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([i] {
            const std::string text(LENGTH, static_cast<char>('a' + i));
            for (int k = 0; k < LINES; ++k) {
                LOG(1, "%s", text.c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::istringstream lines{capture.text()};
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const std::size_t start = line.find("main: ") + 6;
        ASSERT_EQ(line.size() - start, LENGTH);
        ASSERT_EQ(line.find_first_not_of(line[start], start), std::string::npos);
    }
    EXPECT_EQ(count, THREADS * LINES);
}

TEST(Logger, LosesLinesInsteadOfHangingAndStartsAnewBehindATornOne)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const UniqueFd out{ends[0]};
    const UniqueFd saved{::dup(STDERR_FILENO)};
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    log_init_from("test", 1, 1, 1, NO_CONF);
    const std::string text(3000, '\x01'); // 12,001 bytes as a line, more than a pipe takes whole
    std::string seen;
    const auto drain = [&] {
        char piece[4096];
        for (ssize_t n = 0; (n = ::read(out.get(), piece, sizeof piece)) > 0;) {
            seen.append(piece, static_cast<std::size_t>(n));
        }
    };
    errno = ENOENT;
    for (int i = 0; i < 7; ++i) { // the pipe takes 5 of them and a part of another
        LOG(1, "%s", text.c_str());
    }
    EXPECT_EQ(errno, ENOENT);
    drain();
    LOG(1, "after");
    drain();
    ::dup2(saved.get(), STDERR_FILENO);
    EXPECT_TRUE(seen.ends_with("\nafter\n")) << seen.substr(seen.size() - 40);
    EXPECT_GT(seen.size(), 5 * 12'000U);
}

TEST(Logger, TakesItsLevelFromTheFile)
{
    const struct {
        const char *content;
        int result, level;
    } rows[] = {
        {"level=0", 0, 0},  {"level=3\n", 0, 3},         {" level=2 \r\n", 0, 2},
        {"level=4", -1, 9}, {"level=-1", -1, 9},         {"level=", -1, 9},
        {"", -1, 9},        {"level=10", -1, 9},         {"level = 1", -1, 9},
        {"Level=1", -1, 9}, {"level=1\nlevel=2", -1, 9}, {"level=1#", -1, 9},
    };
    for (const auto &row : rows) {
        int level = 9;
        EXPECT_EQ(parse_logger_conf(row.content, &level), row.result) << row.content;
        EXPECT_EQ(level, row.level) << row.content;
    }
}

TEST(Logger, IgnoresOtherFilesWithOneWarning)
{
    const std::string directory = ::testing::TempDir() + "logger_conf_test";
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory + "/a_directory");
    ASSERT_EQ(::mkfifo((directory + "/fifo").c_str(), 0600), 0);
    std::ofstream{directory + "/debug"} << "level=0\n";
    std::ofstream{directory + "/wrong"} << "verbose\n";
    std::ofstream{directory + "/long"} << "level=0" << std::string(70, ' ');
    const struct {
        const char *name, *lines;
    } rows[] = {
        {"debug", "debug\nerror\n"}, {"absent", "error\n"}, {"wrong", "*error\n"},
        {"long", "*error\n"},        {"fifo", "*error\n"},  {"a_directory", "*error\n"},
    };
    for (const auto &row : rows) {
        const std::string path = directory + "/" + row.name;
        const auto calls = [] {
            LOG(0, "debug");
            LOG(3, "error");
        };
        std::string lines = logged(3, calls, path.c_str());
        const std::string warning =
            path + " ignored: it is not a file that holds level=0 to level=3\n";
        if (lines.starts_with(warning)) lines.replace(0, warning.size(), "*");
        EXPECT_EQ(lines, row.lines) << row.name;
    }
    std::filesystem::remove_all(directory);
}

} // namespace
