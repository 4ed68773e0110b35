#include "backend/server.h"

#include "backend/net/accept_loop.h"
#include "backend/observe/audit.h"
#include "backend/observe/log.h"

#include <ctime>
#include <new>
#include <stdexcept>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

static LISTENER_T &openListener(SERVER_T &server, const tcp::endpoint &endpoint)
{
    auto listener = std::make_unique<LISTENER_T>(server.io);
    try {
        listener->acceptor.open(endpoint.protocol());
        listener->acceptor.set_option(tcp::acceptor::reuse_address(true));
        listener->acceptor.bind(endpoint);
        listener->acceptor.listen();
    } catch (const boost::system::system_error &fault) {
        throw std::runtime_error("cannot listen on " + endpointText(endpoint) + ": " +
                                 fault.code().message());
    }
    server.listeners.push_back(std::move(listener));
    return *server.listeners.back();
}

static void deviceConnected(SERVER_T &server, const ChannelPtr &channel)
{
    server.unauthenticated.erase(channel);
    const auto older = server.devices.extract(channel->device);
    server.devices[channel->device] = channel;
    // Its sessions are void: identifiers may come a second time from a device that has started
    // again.
    if (!older.empty())
        closeDeviceChannel(*older.mapped(), CLOSE_GOING_AWAY, "replaced by a newer connection");
}

static void channelClosed(SERVER_T &server, const ChannelPtr &channel)
{
    server.unauthenticated.erase(channel);
    const auto found = server.devices.find(channel->device);
    if (found != server.devices.end() && found->second == channel) server.devices.erase(found);
}

static void acceptDevice(SERVER_T &server, tcp::socket socket)
{
    if (server.unauthenticated.size() >= server.options.limits.unauthenticated) {
        if (rateAllows(server.refused_lines))
            logWarning("too many connections without a handshake, one was refused");
        return; // the socket closes itself
    }
    CHANNEL_EVENTS_T events;
    events.check = [&server](const MESSAGE_T &message) {
        return checkHandshake(message, server.options.registry, time(nullptr));
    };
    events.connected = [&server](const ChannelPtr &channel) { deviceConnected(server, channel); };
    events.closed = [&server](const ChannelPtr &channel) { channelClosed(server, channel); };
    const ChannelPtr channel = startDeviceChannel(
        server.io, server.options.limits, std::move(socket), server.options.tls, std::move(events));
    try {
        server.unauthenticated.insert(channel);
    } catch (const std::bad_alloc &) { // nothing would watch over it
        channel->link->abort();
        throw;
    }
}

static void acceptClient(SERVER_T &server, const LISTENER_T &listener, tcp::socket socket)
{
    const ChannelPtr channel = findChannel(server, listener.device);
    const SERVICE_T *service = channel ? findService(*channel, listener.service) : nullptr;
    error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    const std::string who = error ? "(gone)" : endpointText(peer);
    if (service == nullptr) {
        const std::string &device = listener.device.device_name;
        const char *const reason =
            channel ? "the device does not announce this service" : "the device is not connected";
        if (rateAllows(server.refused_lines))
            logWarning("client for %s/%s turned away: %s", device.c_str(), listener.service.c_str(),
                       reason);
        auditRefusal(who, device, listener.service, reason);
        ClientSocket client(std::move(socket));
        return resetClient(client);
    }
    requestSession(*channel, {std::move(socket), who, nullptr, nullptr}, *service);
}

std::unique_ptr<SERVER_T> startServer(asio::io_context &io, SERVER_OPTIONS_T options)
{
    auto server = std::make_unique<SERVER_T>(io, std::move(options));
    SERVER_T &self = *server;
    openListener(self, self.options.listen).accepted = [&self](LISTENER_T &, tcp::socket socket) {
        acceptDevice(self, std::move(socket));
    };
    for (const FORWARD_OPTION_T &forward : self.options.forwards) {
        LISTENER_T &listener = openListener(self, forward.listen);
        listener.device = findDeviceByName(self.options.registry, forward.device);
        listener.service = forward.service;
        listener.accepted = [&self](LISTENER_T &from, tcp::socket socket) {
            acceptClient(self, from, std::move(socket));
        };
    }
    for (const auto &listener : self.listeners) {
        acceptNext(listener.get(), [](LISTENER_T *on, tcp::socket socket) {
            on->accepted(*on, std::move(socket));
        });
    }
    if (!self.options.control.empty()) self.control = openControl(self, self.options.control);
    logInfo("listening on %s (%s), %zu devices registered",
            endpointText(listenEndpoint(self)).c_str(), self.options.tls ? "TLS" : "plain",
            self.options.registry.size());
    for (std::size_t i = 0; i < self.options.forwards.size(); i++) {
        const LISTENER_T &listener = *self.listeners[i + 1];
        logInfo("forward %s to %s/%s ready", endpointText(forwardEndpoint(self, i)).c_str(),
                listener.device.device_name.c_str(), listener.service.c_str());
    }
    return server;
}

void replaceRegistry(SERVER_T &server, DEVICE_REGISTRY_T registry)
{
    std::swap(server.options.registry, registry);
    for (const auto &[key, channel] : std::map(server.devices)) {
        const auto known = server.options.registry.find(key);
        if (known == server.options.registry.end() || known->second != registry[key])
            closeDeviceChannel(*channel, CLOSE_REFUSED, "its entry in the registry has changed");
    }
}

void stopServer(SERVER_T &server)
{
    if (server.control) closeControl(*server.control);
    for (const auto &listener : server.listeners) {
        error_code ignored;
        listener->acceptor.close(ignored);
        listener->pause.cancel();
    }
    for (const ChannelPtr &channel : std::set(server.unauthenticated)) {
        closeDeviceChannel(*channel, CLOSE_GOING_AWAY, "the back end ends");
    }
    for (const auto &[key, channel] : std::map(server.devices)) {
        closeDeviceChannel(*channel, CLOSE_GOING_AWAY, "the back end ends");
    }
}

tcp::endpoint listenEndpoint(const SERVER_T &server)
{
    return server.listeners.front()->acceptor.local_endpoint();
}

tcp::endpoint forwardEndpoint(const SERVER_T &server, std::size_t index)
{
    return server.listeners[index + 1]->acceptor.local_endpoint();
}

ChannelPtr findChannel(const SERVER_T &server, const DEVICE_KEY_T &device)
{
    const auto found = server.devices.find(device);
    return found == server.devices.end() ? nullptr : found->second;
}

} // namespace backend
