#include "tests/support/fake_logger.h"

#include "platform/logger/logger.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex g_lock;
struct LINE_T {
    std::string text;
    std::string owner;
};
std::vector<LINE_T> g_lines;
std::string g_owners; // of the last take

// No test sees the lines of the one before.
class ForgetsLines : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override
    {
        fake_logger::take();
    }
};
[[maybe_unused]] const bool g_forgetting = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new ForgetsLines);
    return true;
}();

} // namespace

void log_print(int level, const char *, const char *, const char *, const char *function, int,
               const char *format, ...)
{
    std::string text(60000, '\0');
    std::va_list args;
    va_start(args, format);
    text.resize(static_cast<std::size_t>(std::vsnprintf(text.data(), text.size(), format, args)));
    va_end(args);
    const std::lock_guard lock{g_lock};
    g_lines.push_back({std::to_string(level) + " " + text, function});
    if (level == LOG_LEVEL_ERROR) (void)std::fprintf(stderr, "%s\n", g_lines.back().text.c_str());
}

std::string fake_logger::take(int min_level)
{
    const std::lock_guard lock{g_lock};
    std::string joined;
    g_owners.clear();
    for (const auto &[text, owner] : std::exchange(g_lines, {})) {
        if (text[0] - '0' < min_level) continue;
        joined += (joined.empty() ? "" : "|") + text;
        if (("|" + g_owners + "|").find("|" + owner + "|") == std::string::npos)
            g_owners += (g_owners.empty() ? "" : "|") + owner;
    }
    return maskIds(joined);
}

std::string fake_logger::owners()
{
    return g_owners;
}

std::string maskIds(std::string text)
{
    std::size_t run = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && std::isalnum(static_cast<unsigned char>(text[i])) != 0) {
            ++run;
            continue;
        }
        if (run == ID.size()) text.replace(i - run, run, ID);
        run = 0;
    }
    return text;
}
