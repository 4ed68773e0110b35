// One end of a kept session with its two sockets: the local one (the service's connection on the
// gateway, the client's at the operator) and the carrier, when there is one.
//
//   GREETING  a carrier is there; the other end's first frame has not come
//   RUNNING   bytes go both ways
//   AWAY      no carrier: everything is kept, the local connection stays
//   CLOSING   the session is over; the last frames still leave
//   OVER      nothing is left to do
//
// Ownership  its KeptSessions (sessions.h) holds it.
// Threads    the one of its KeptSessions.
#pragma once

#include "keep/carrier.h"
#include "keep/fair_queue.h"
#include "keep/opening.h"
#include "keep/pace.h"
#include "keep/stream.h"
#include "utility/handles.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

namespace keep {

enum class SIDE { OPERATOR, KEEPER };
enum class KEPT_STATE { GREETING, RUNNING, AWAY, CLOSING, OVER };

// How a session has ended.
enum class KEPT_END {
    WHOLE,   // both streams have arrived with their ends
    BROKEN,  // a local connection broke, here or there
    REFUSED, // by the keeper
    GIVEN_UP // nobody came back in time, or it may not go on
};

struct KEPT_SESSION_T;

struct KEPT_EVENTS_T {
    std::function<void(KEPT_SESSION_T &)> greeted = nullptr; // also after a resumption
    std::function<void(KEPT_SESSION_T &, const char *why)> lost = nullptr; // AWAY
    std::function<void(KEPT_SESSION_T &)> over = nullptr; // once; `end` and `reason` say how
};

struct SENT_MARK_T {
    std::uint64_t end; // of what was sent then
    Time at;
};

struct KEPT_SESSION_T {
    SIDE side = SIDE::OPERATOR;
    SessionKey key{};
    KEPT_EVENTS_T events;
    KEPT_STATE state = KEPT_STATE::AWAY;
    KEPT_END end = KEPT_END::GIVEN_UP;
    std::string reason;       // of the end
    REFUSAL refusal{};        // of a REFUSED one
    bool was_greeted = false; // once at least

    KEPT_STREAM_T stream;
    CARRIER_T carrier;
    UniqueFd local;             // the operator's may come when the session is greeted first
    bool is_local_read = false; // its end has been read
    bool is_local_done = false; // it has been told the other stream's end, or takes no more
    bool is_shut = false;       // the carrier has been told the end

    FLOW_T flow;
    Pace pace;
    std::size_t shared = 0; // of what is under way: how much counts for all sessions together
    bool is_silent = false; // nothing of what is under way is acknowledged in time
    BaseTime base;
    std::deque<SENT_MARK_T> marks;
    std::optional<Time> ack_due;
    std::optional<Time> asked_since; // that the other end owes something without progress
    Time ask_at{};                   // again
    Seconds ask_wait{};
    Time heard{};
    Time since{};     // of this state
    Time last_data{}; // either way
};

} // namespace keep
