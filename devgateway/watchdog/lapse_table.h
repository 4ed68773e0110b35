// Lapse table: which threads have been fed, and whose declared time ran out. It holds no clock:
// the caller passes the monotonic time in.
//
// Limits   WATCHED_MAX threads, names of 1 to WATCHED_NAME_MAX bytes. A new thread in a full table
//          takes the place of the one whose lapse is the oldest; without a lapse it is refused.
// Threads  the caller's.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

constexpr std::size_t WATCHED_MAX = 256;
constexpr std::size_t WATCHED_NAME_MAX = 255;

struct WATCHED_T {
    std::int64_t due_ms; // when its declared time is over
    std::int32_t timeout_s;
    bool lapsed; // reported, and not fed since
};

struct LAPSE_TABLE_T {
    std::map<std::pair<std::string, std::string>, WATCHED_T> threads; // by module, thread
};

struct LAPSE_T {
    std::string module;
    std::string thread;
    std::int32_t timeout_s;
};

enum FEED_RESULT {
    FEED_IN_TIME,
    FEED_FIRST,       // the thread is watched from now on
    FEED_AFTER_LAPSE, // late_ms says by how much
    FEED_SENSELESS,   // an empty or too long name, or a time that is not positive
    FEED_TABLE_FULL,
};

// A feed at now_ms that declares timeout_s. A feed that comes after its time but before
// take_lapses() was asked is in time: no lapse was reported.
[[nodiscard]] FEED_RESULT feed_thread(LAPSE_TABLE_T &table, const std::string &module,
                                      const std::string &thread, std::int32_t timeout_s,
                                      std::int64_t now_ms, std::int64_t &late_ms);

// The threads whose time is over at now_ms, each once until it is fed again.
[[nodiscard]] std::vector<LAPSE_T> take_lapses(LAPSE_TABLE_T &table, std::int64_t now_ms);

// Milliseconds from now_ms until the next time is over, at most a day; -1 when none is running.
int time_to_next_lapse_ms(const LAPSE_TABLE_T &table, std::int64_t now_ms) noexcept;
