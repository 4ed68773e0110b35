// The one thread that carries all kept sessions of this process, so that what goes to a device is
// shared fairly among them (keep/sessions.h).
// Ownership  the loop lives as long as the process.
// Threads    post() from any.
#pragma once

#include "keep/sessions.h"

#include <functional>

namespace kept_loop {

// Runs in the loop's thread, soon. The first call starts it; throws std::runtime_error when it
// cannot be started.
void post(std::function<void(keep::KeptSessions &)> task);

} // namespace kept_loop
