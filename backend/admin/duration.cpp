#include "backend/admin/duration.h"

#include <charconv>
#include <stdexcept>
#include <string>

namespace backend {

constexpr std::int64_t DAY_S = 86400;
constexpr std::int64_t LONGEST_S = 3653 * DAY_S;

static std::int64_t secondsOf(char unit)
{
    switch (unit) {
    case 's':
        return 1;
    case 'm':
        return 60;
    case 'h':
        return 3600;
    case 'd':
        return DAY_S;
    default:
        return 0;
    }
}

std::int64_t parseDuration(std::string_view text)
{
    if (text == "0") return 0;
    std::int64_t number = 0;
    const std::int64_t unit = text.empty() ? 0 : secondsOf(text.back());
    const char *end = text.data() + text.size() - (text.empty() ? 0 : 1);
    const auto [stop, fault] = std::from_chars(text.data(), end, number);
    if (unit == 0 || fault != std::errc() || stop != end || number < 0 || number > LONGEST_S / unit)
        throw std::invalid_argument("\"" + std::string(text) +
                                    "\" is no time such as 90s, 15m, 8h or 7d");
    return number * unit;
}

} // namespace backend
