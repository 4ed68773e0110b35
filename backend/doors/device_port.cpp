#include "backend/doors/device_port.h"

#include "backend/net/accept_loop.h"
#include "backend/net/endpoint.h"
#include "backend/observe/log.h"
#include "backend/observe/metrics.h"

#include <new>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

static constinit LINE_LIMIT_T g_turned_away{"connections refused for want of a place"};

static void takeDevice(const std::shared_ptr<DEVICE_PORT_T> &port, tcp::socket socket)
{
    if (port->unauthenticated.size() >= port->limits.unauthenticated) {
        addToMetric(METRIC::CONNECTIONS_TURNED_AWAY);
        logLimited(g_turned_away, LOG_LEVEL::WARNING,
                   "too many connections without a handshake, one was refused");
        return; // the socket closes itself
    }
    DEVICE_PORT_T *const held = port.get(); // outlives the channels' events
    CHANNEL_EVENTS_T events;
    events.check = [held](const DEVICE_CHANNEL_T &channel, const MESSAGE_T &message,
                          HandshakeAnswer answered) {
        checkDevice(held->directory, channel, message, std::move(answered));
    };
    events.connected = [held](const ChannelPtr &channel) {
        held->unauthenticated.erase(channel);
        deviceConnected(held->directory, channel);
    };
    events.closed = [held](const ChannelPtr &channel, const std::string &reason) {
        held->unauthenticated.erase(channel);
        deviceGone(held->directory, channel, reason);
    };
    const ChannelPtr channel =
        startDeviceChannel(port->io, port->limits, std::move(socket), port->tls, std::move(events));
    try {
        port->unauthenticated.insert(channel);
    } catch (const std::bad_alloc &) { // nothing would watch over it
        channel->link->abort();
        throw;
    }
}

std::shared_ptr<DEVICE_PORT_T> openDevicePort(asio::io_context &io, DIRECTORY_T &directory,
                                              const LIMITS_T &limits, const tcp::endpoint &listen,
                                              std::shared_ptr<TLS_CONTEXT_T> tls)
{
    auto port = std::make_shared<DEVICE_PORT_T>(io, directory, limits);
    port->tls = std::move(tls);
    openListener(port->acceptor, listen);
    acceptNext(port, takeDevice);
    logInfo("listening on %s (%s), %zu devices registered",
            endpointText(port->acceptor.local_endpoint()).c_str(), port->tls ? "TLS" : "plain",
            directory.registry.size());
    return port;
}

void closeDevicePort(DEVICE_PORT_T &port)
{
    error_code ignored;
    port.acceptor.close(ignored);
    port.pause.cancel();
    for (const ChannelPtr &channel : std::set(port.unauthenticated))
        closeDeviceChannel(*channel, CLOSE_GOING_AWAY, "the back end ends");
}

} // namespace backend
