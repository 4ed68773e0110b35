// A session that outlives its line: docs/keeper.md. It is carried over one plain session after
// another, each opened by the request of the first, until both streams are whole.
// Lines      on standard error when the line is lost, and when it is back.
// Threads    the loop's (kept_loop.h), and one for each session that opens and carries its lines.
#pragma once

#include "operator/carrier/carrier.h"

#include <chrono>
#include <memory>

constexpr auto KEPT_TIME = std::chrono::seconds(900); // that a lost line is waited for

// As openSession(). Null when the device, or the back end, keeps no sessions: a plain one is the
// way then, and nothing has been read from the ends. target: for the lines.
std::unique_ptr<Session> openKeptSession(const BACK_END_T &back_end, const nlohmann::json &request,
                                         SESSION_ENDS_T &ends, std::chrono::seconds time,
                                         const std::string &target);
