// Server-sent events: what happens to the devices and sessions that an operator may know of.
// Ownership  a stream keeps its connection until either side has closed it.
// Threads    the thread of the io_context.
// Limits     16 streams of an operator; STREAM_BACKLOG bytes that its reader has not taken, and
//            LIMITS_T::answer_time for a write: a slower one is cut off. An operator whose token or
//            certificate proves nothing any more loses the stream with the next heartbeat.
#pragma once

#include "backend/api/connection.h"

#include <chrono>
#include <cstddef>

namespace backend {

constexpr std::size_t STREAM_BACKLOG = std::size_t{256} * 1024;
constexpr auto HEARTBEAT = std::chrono::seconds(15); // shorter than what proxies wait

// Answers a request whose body has been read.
void startEventStream(const ConnectionPtr &connection);

} // namespace backend
