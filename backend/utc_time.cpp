#include "backend/utc_time.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

namespace backend {

static bool isDigit(char byte)
{
    return byte >= '0' && byte <= '9';
}

std::optional<std::int64_t> parseUtcTime(std::string_view text)
{
    constexpr std::string_view FORM = "0000-00-00T00:00:00";
    if (text.size() <= FORM.size() || text.back() != 'Z') return std::nullopt;
    for (std::size_t i = 0; i < FORM.size(); i++) {
        if (FORM[i] == '0' ? !isDigit(text[i]) : text[i] != FORM[i]) return std::nullopt;
    }
    const std::string_view fraction = text.substr(FORM.size(), text.size() - FORM.size() - 1);
    if (!fraction.empty() && (fraction.size() < 2 || fraction[0] != '.' ||
                              !std::all_of(fraction.begin() + 1, fraction.end(), isDigit)))
        return std::nullopt;
    const auto number = [text](std::size_t at, std::size_t size) {
        int value = 0;
        for (const char digit : text.substr(at, size))
            value = value * 10 + (digit - '0');
        return value;
    };
    using namespace std::chrono;
    const year_month_day date{year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                              day(static_cast<unsigned>(number(8, 2)))};
    const int hour = number(11, 2);
    const int minute = number(14, 2);
    const int second = number(17, 2);
    if (!date.ok() || date.year() < year(1970) || hour > 23 || minute > 59 || second > 59)
        return std::nullopt;
    return sys_seconds(sys_days(date)).time_since_epoch().count() +
           (std::int64_t{hour} * 60 + minute) * 60 + second;
}

std::string utcTimeText(std::int64_t seconds)
{
    using namespace std::chrono;
    const sys_seconds point{std::chrono::seconds(seconds)};
    const year_month_day date{floor<days>(point)};
    const hh_mm_ss time{point - floor<days>(point)};
    std::array<char, 64> text{};
    (void)snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ",
                   static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                   static_cast<int>(time.minutes().count()),
                   static_cast<int>(time.seconds().count()));
    return text.data();
}

} // namespace backend
