// Kept sessions (docs/keeper.md), as far as the back end has to do with them: it writes the opening
// as a session's first bytes, and tells the keeper when a session has ended for good. What both
// ends say to each other behind the opening is none of its business.
// Threads  the thread of the io_context.
#pragma once

#include "backend/devices/protocol.h"
#include "backend/net/out_message.h"
#include "keep/opening.h"

#include <optional>
#include <string>

namespace backend {

struct DEVICE_CHANNEL_T;

// What makes a session a kept one.
struct KEEPING_T {
    SERVICE_T keeper; // where it goes instead of its service
    keep::OPENING_T opening;
    std::string
        mark; // tells that two sessions are carriers of one; the key does not follow from it
    bool isResumed() const
    {
        return opening.kind == keep::OPENING::RESUME;
    }
};

// Nothing when the device has no keeper, or announces the service by texts that find no room in an
// opening. max_session is rounded to what an opening can say. Throws std::runtime_error when the
// cryptographic library refuses.
std::optional<KEEPING_T> keepService(const DEVICE_CHANNEL_T &channel, const SERVICE_T &service,
                                     keep::OPENING_T opening);

OutMessagePtr openingMessage(const keep::OPENING_T &opening);

// On a stream of its own, which ends when the keeper closes it, or LIMITS_T::drain_time after the
// opening was sent. It is no session: neither lists nor the audit have it. What keeps the keeper
// from being told is logged; it forgets the session by itself in the end.
void tellKeeperOfEnd(DEVICE_CHANNEL_T &channel, keep::OPENING_T opening);

} // namespace backend
