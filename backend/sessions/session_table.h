// All sessions that have not ended, by their number, and what they hold together.
// Ownership  a session belongs to its channel, or to itself while it flushes; it keeps the table,
//            and takes itself out of it when it is destroyed.
// Threads    the thread of the io_context.
// Limits     LIMITS_T: session_buffer for each, all_buffers for all of them.
#pragma once

#include "backend/devices/device_channel.h"
#include "backend/sessions/session.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>

namespace backend {

struct SESSION_TABLE_T {
    explicit SESSION_TABLE_T(const LIMITS_T &allowed) : limits(allowed) {}
    const LIMITS_T &limits;
    std::map<std::string, std::weak_ptr<SESSION_T>> sessions; // by number
    std::size_t backlog = 0;                                  // bytes that wait for clients
};

using SessionTablePtr = std::shared_ptr<SESSION_TABLE_T>;

// Asks the device for a session and carries the client over it. The session's begin is recorded
// before the device is asked. A session that cannot begin ends at once, with its reason.
SessionPtr startSession(const SessionTablePtr &table, DEVICE_CHANNEL_T &channel, CLIENT_T client,
                        const SERVICE_T &service);

// Null when none has this number.
SessionPtr findSession(const SESSION_TABLE_T &table, const std::string &number);

// Counts what waits for the session's client now. When that, or what waits for all clients, is too
// much, the session with the largest backlog is ended.
void noteBacklog(SESSION_TABLE_T &table, SESSION_T &session);

} // namespace backend
