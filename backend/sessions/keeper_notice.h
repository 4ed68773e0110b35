// What the back end itself says to a device's keeper: the opening of a carrier, and that a session
// has ended for good.
// Threads  the thread of the io_context.
#pragma once

#include "backend/devices/device_channel.h"
#include "backend/sessions/session.h"

#include <string>

namespace backend {

// As the first bytes of a stream that has just been opened.
void sendOpening(DEVICE_CHANNEL_T &channel, const std::string &token,
                 const keep::OPENING_T &opening);

// Over a stream of its own, which ends by itself: within a few seconds, whatever the device does.
// Nothing happens when the device has no room for it; its keeper then gives the session up in its
// own time.
void tellKeeper(DEVICE_CHANNEL_T &channel, const KEPT_CARRIER_T &ended);

} // namespace backend
