// The port of the HTTPS interface for operators' programs. docs/interface.md describes what it
// speaks, routes.h has its paths; what they ask for is decided in operations/, as for every door.
// Course     a connection has one of the places for strangers (admission.h) until its first request
//            has proved an operator; without that it gets one answer and is closed.
// Ownership  a connection keeps itself and the port's record until it is closed.
// Threads    the thread of the io_context.
// Failure    openApiPort throws std::runtime_error.
#pragma once

#include "backend/api/gate.h"
#include "backend/limits.h"
#include "backend/net/admission.h"
#include "backend/net/listener.h"
#include "backend/net/tls_context.h"
#include "backend/operations/operations.h"

#include <memory>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct CONNECTION_T;

struct API_PORT_T {
    API_PORT_T(boost::asio::io_context &context, OPERATIONS_T &on, const LIMITS_T &allowed);
    boost::asio::io_context &io;
    OPERATIONS_T &operations;
    LIMITS_T limits;                    // its own number of places
    std::shared_ptr<TLS_CONTEXT_T> tls; // of new connections
    std::shared_ptr<Admission> admission;
    std::shared_ptr<Listener> listener;
    GATE_T gate;
    std::set<CONNECTION_T *> connections;
};
using ApiPortPtr = std::shared_ptr<API_PORT_T>;

ApiPortPtr openApiPort(boost::asio::io_context &io, OPERATIONS_T &operations,
                       const LIMITS_T &limits, const boost::asio::ip::tcp::endpoint &listen,
                       std::shared_ptr<TLS_CONTEXT_T> tls);

// Takes no further connection and closes those that there are; sessions end with their devices'.
void closeApiPort(API_PORT_T &port);

} // namespace backend
