// The back end as a whole: the port for devices, the local ports for clients, the control socket,
// and which channel belongs to which device.
// Ownership  the server holds every channel; it must outlive the run of its io_context.
// Threads    the thread of the io_context.
// Failure    startServer throws std::runtime_error when something cannot be used; afterwards faults
//            are logged and the server continues.
#pragma once

#include "backend/doors/control.h"
#include "backend/devices/device_channel.h"
#include "backend/devices/device_registry.h"
#include "backend/limits.h"
#include "backend/options.h"

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct SERVER_OPTIONS_T {
    boost::asio::ip::tcp::endpoint listen;
    std::shared_ptr<TLS_CONTEXT_T> tls; // of new connections; null: plain ones
    DEVICE_REGISTRY_T registry;
    std::vector<FORWARD_OPTION_T> forwards;
    std::string control; // path of the control socket; empty for none
    LIMITS_T limits;
};

struct LISTENER_T {
    explicit LISTENER_T(boost::asio::io_context &io) : acceptor(io), pause(io) {}
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer pause; // before accepting again when descriptors have run out
    DEVICE_KEY_T device;             // of a forward; unused for the devices' own port
    std::string service;
    std::function<void(LISTENER_T &, boost::asio::ip::tcp::socket)> accepted;
};

struct SERVER_T {
    SERVER_T(boost::asio::io_context &context, SERVER_OPTIONS_T chosen)
        : io(context), options(std::move(chosen))
    {
    }
    boost::asio::io_context &io;
    SERVER_OPTIONS_T options;
    std::vector<std::unique_ptr<LISTENER_T>>
        listeners;                      // the devices' port first, then the forwards in their order
    std::shared_ptr<CONTROL_T> control; // null without a control socket
    std::set<ChannelPtr> unauthenticated;
    std::map<DEVICE_KEY_T, ChannelPtr> devices;
    RATE_LIMIT_T refused_lines;
};

std::unique_ptr<SERVER_T> startServer(boost::asio::io_context &io, SERVER_OPTIONS_T options);

// For the handshakes from now on. A device whose entry is gone, or has another secret, is cut off:
// what it has proved does not hold any more.
void replaceRegistry(SERVER_T &server, DEVICE_REGISTRY_T registry);

// Stops accepting and closes the connection of every device; the io_context then runs out of work
// within seconds.
void stopServer(SERVER_T &server);

boost::asio::ip::tcp::endpoint listenEndpoint(const SERVER_T &server);
boost::asio::ip::tcp::endpoint forwardEndpoint(const SERVER_T &server, std::size_t index);

// Null while the device is not connected.
ChannelPtr findChannel(const SERVER_T &server, const DEVICE_KEY_T &device);

} // namespace backend
