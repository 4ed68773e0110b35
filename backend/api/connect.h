// A request that becomes a session: its connection is handed to a WebSocket once the device has
// opened the session; until then, and when it is refused, it is answered like any other.
// Threads  the thread of the io_context.
#pragma once

#include "backend/api/connection.h"

namespace backend {

// Answers a request whose body has been read.
void startConnect(const ConnectionPtr &connection);

} // namespace backend
