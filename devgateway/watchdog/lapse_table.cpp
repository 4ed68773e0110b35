#include "devgateway/watchdog/lapse_table.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::int64_t MS_PER_S = 1000;
constexpr std::int64_t DAY_MS = MS_PER_S * 60 * 60 * 24;

bool is_watched_name(const std::string &name)
{
    return !name.empty() && name.size() <= WATCHED_NAME_MAX;
}

// False when every thread of the full table is in time.
bool make_room(LAPSE_TABLE_T &table)
{
    if (table.threads.size() < WATCHED_MAX) return true;
    const auto oldest = std::min_element(table.threads.begin(), table.threads.end(),
                                         [](const auto &a, const auto &b) {
                                             return std::pair{!a.second.lapsed, a.second.due_ms} <
                                                    std::pair{!b.second.lapsed, b.second.due_ms};
                                         });
    if (!oldest->second.lapsed) return false;
    table.threads.erase(oldest);
    return true;
}

} // namespace

FEED_RESULT feed_thread(LAPSE_TABLE_T &table, const std::string &module, const std::string &thread,
                        std::int32_t timeout_s, std::int64_t now_ms, std::int64_t &late_ms)
{
    late_ms = 0;
    if (!is_watched_name(module) || !is_watched_name(thread) || timeout_s <= 0) {
        return FEED_SENSELESS;
    }
    const WATCHED_T fed{now_ms + timeout_s * MS_PER_S, timeout_s, false};
    const auto place = table.threads.find({module, thread});
    if (place == table.threads.end()) {
        if (!make_room(table)) return FEED_TABLE_FULL;
        table.threads.emplace(std::pair{module, thread}, fed);
        return FEED_FIRST;
    }
    const WATCHED_T before = std::exchange(place->second, fed);
    if (!before.lapsed) return FEED_IN_TIME;
    late_ms = now_ms - before.due_ms;
    return FEED_AFTER_LAPSE;
}

std::vector<LAPSE_T> take_lapses(LAPSE_TABLE_T &table, std::int64_t now_ms)
{
    std::vector<LAPSE_T> lapses;
    for (auto &[names, watched] : table.threads) {
        if (watched.lapsed || now_ms < watched.due_ms) continue;
        watched.lapsed = true;
        lapses.push_back({names.first, names.second, watched.timeout_s});
    }
    return lapses;
}

int time_to_next_lapse_ms(const LAPSE_TABLE_T &table, std::int64_t now_ms) noexcept
{
    std::int64_t next_ms = std::numeric_limits<std::int64_t>::max();
    for (const auto &[names, watched] : table.threads) {
        if (!watched.lapsed) next_ms = std::min(next_ms, watched.due_ms);
    }
    if (next_ms == std::numeric_limits<std::int64_t>::max()) return -1;
    return static_cast<int>(std::clamp(next_ms - now_ms, std::int64_t{0}, DAY_MS));
}
