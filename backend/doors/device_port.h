// The port that devices connect to, and the connections whose handshake has not been accepted yet.
// Ownership  the record holds these connections; the directory holds those of devices.
// Threads    the thread of the io_context.
// Failure    openDevicePort throws std::runtime_error.
#pragma once

#include "backend/directory/directory.h"
#include "backend/limits.h"
#include "backend/net/admission.h"
#include "backend/net/listener.h"
#include "backend/net/websocket_link.h"

#include <memory>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct DEVICE_PORT_T {
    DEVICE_PORT_T(boost::asio::io_context &context, DIRECTORY_T &of, const LIMITS_T &allowed)
        : io(context), directory(of), limits(allowed)
    {
    }
    boost::asio::io_context &io;
    DIRECTORY_T &directory;
    const LIMITS_T &limits;
    std::shared_ptr<TLS_CONTEXT_T> tls; // of new connections; null: plain ones
    std::shared_ptr<Admission> admission;
    std::shared_ptr<Listener> listener;
    std::set<ChannelPtr> unauthenticated;
};

std::shared_ptr<DEVICE_PORT_T> openDevicePort(boost::asio::io_context &io, DIRECTORY_T &directory,
                                              const LIMITS_T &limits,
                                              const boost::asio::ip::tcp::endpoint &listen,
                                              std::shared_ptr<TLS_CONTEXT_T> tls);

// Takes no further connection, and closes those that are no device's yet.
void closeDevicePort(DEVICE_PORT_T &port);

} // namespace backend
