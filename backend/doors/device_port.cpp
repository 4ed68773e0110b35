#include "backend/doors/device_port.h"

#include "backend/net/endpoint.h"
#include "backend/observe/log.h"

#include <new>

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

static void takeDevice(const std::shared_ptr<DEVICE_PORT_T> &port, tcp::socket socket,
                       PlacePtr place)
{
    DEVICE_PORT_T *const held = port.get(); // outlives the channels' events
    CHANNEL_EVENTS_T events;
    events.check = [held](const DEVICE_CHANNEL_T &channel, const MESSAGE_T &message,
                          HandshakeAnswer answered) {
        checkDevice(held->directory, channel, message, std::move(answered));
    };
    events.connected = [held](const ChannelPtr &channel, const std::string &remark) {
        held->unauthenticated.erase(channel);
        deviceConnected(held->directory, channel, remark);
    };
    events.refused = [held](const DEVICE_CHANNEL_T &channel, const HANDSHAKE_RESULT_T &result) {
        deviceRefused(held->directory, channel, result);
    };
    events.closed = [held](const ChannelPtr &channel, const std::string &reason) {
        held->unauthenticated.erase(channel);
        deviceGone(held->directory, channel, reason);
    };
    const ChannelPtr channel = startDeviceChannel(port->io, port->limits, std::move(socket),
                                                  std::move(place), port->tls, std::move(events));
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
    port->admission = std::make_shared<Admission>(
        io, limits, [weak = std::weak_ptr(port)](tcp::socket socket, PlacePtr place) {
            const auto held = weak.lock();
            if (held) takeDevice(held, std::move(socket), std::move(place));
        });
    port->listener = std::make_shared<Listener>(io, port->admission);
    port->listener->open(listen);
    logInfo("listening on %s (%s), %zu devices registered",
            endpointText(port->listener->endpoint()).c_str(), port->tls ? "TLS" : "plain",
            directory.registry.size());
    return port;
}

void closeDevicePort(DEVICE_PORT_T &port)
{
    port.listener->close();
    for (const ChannelPtr &channel : std::set(port.unauthenticated))
        closeDeviceChannel(*channel, CLOSE_GOING_AWAY, "the back end ends");
    port.admission->close();
}

} // namespace backend
