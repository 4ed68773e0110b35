// A session's client at the other end of a stream socket: TCP of any family, or a Unix socket.
// Ownership  the client owns its socket.
// Threads    as SessionClient.
#pragma once

#include "backend/sessions/session_client.h"

#include <boost/asio/generic/stream_protocol.hpp>

namespace backend {

SessionClientPtr makeSocketClient(boost::asio::generic::stream_protocol::socket socket);

} // namespace backend
