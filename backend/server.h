// The back end as a whole: what it knows, and the doors to it.
// Ownership  the server must outlive the run of its io_context.
// Threads    the thread of the io_context. The destructor waits for the store's last writes.
// Failure    startServer throws std::runtime_error when something cannot be used; afterwards faults
//            are logged and the server continues.
#pragma once

#include "backend/api/api_port.h"
#include "backend/directory/directory.h"
#include "backend/doors/account_names.h"
#include "backend/doors/control.h"
#include "backend/doors/device_port.h"
#include "backend/doors/forwards.h"
#include "backend/limits.h"
#include "backend/operations/operations.h"
#include "backend/options.h"
#include "backend/sessions/session_table.h"
#include "backend/store/store.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct SERVER_OPTIONS_T {
    boost::asio::ip::tcp::endpoint listen;
    std::shared_ptr<TLS_CONTEXT_T> tls; // of new connections; null: plain ones
    DeviceRegistry registry;
    PolicyPtr policy; // null: none
    std::vector<FORWARD_OPTION_T> forwards;
    std::optional<boost::asio::ip::tcp::endpoint> api;
    std::shared_ptr<TLS_CONTEXT_T> api_tls; // of new connections of the interface
    std::string control;                    // path of the control socket; empty for none
    std::string ssh_ca;                     // private key that signs certificates; empty: none
    std::chrono::minutes certificate_life{5};
    std::string store; // of what it learns at run time; empty: a restart forgets that
    LIMITS_T limits;
};

struct SERVER_T {
    SERVER_T(boost::asio::io_context &context, SERVER_OPTIONS_T chosen)
        : io(context), options(std::move(chosen))
    {
    }
    boost::asio::io_context &io;
    SERVER_OPTIONS_T options; // without the registry, which is the directory's
    StorePtr store;           // null without one
    SessionTablePtr sessions = std::make_shared<SESSION_TABLE_T>(options.limits);
    DIRECTORY_T directory;
    OPERATIONS_T operations{.directory = directory, .sessions = sessions};
    std::shared_ptr<ACCOUNT_NAMES_T> names;
    std::shared_ptr<DEVICE_PORT_T> device_port;
    std::vector<std::shared_ptr<FORWARD_T>> forwards; // in their order
    std::shared_ptr<CONTROL_T> control;               // null without a control socket
    ApiPortPtr api;                                   // null without the interface
};

std::unique_ptr<SERVER_T> startServer(boost::asio::io_context &io, SERVER_OPTIONS_T options);

// Stops accepting and closes the connection of every device; the io_context then runs out of work
// within seconds.
void stopServer(SERVER_T &server);

boost::asio::ip::tcp::endpoint listenEndpoint(const SERVER_T &server);
boost::asio::ip::tcp::endpoint forwardEndpoint(const SERVER_T &server, std::size_t index);

} // namespace backend
