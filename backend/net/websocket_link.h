// One accepted WebSocket connection, plain or over TLS, without any knowledge of what it carries.
// Ownership  the link keeps itself alive while an operation runs; a message being written belongs
//            to it until it is handed back with `written`. Its events must not keep it alive.
// Threads    the thread of the io_context.
// Limits     messages of up to LINK_MESSAGE_MAX bytes; no compression. At most one read and one
//            write at a time.
// Memory     an idle link holds no message's storage.
// Failure    what throws while an event is handled, as when memory has run out, costs this link:
//            `received` comes with an error. Every operation ends in its event, with an error when
//            it failed; after abort() no event comes any more.
#pragma once

#include "backend/net/out_message.h"
#include "backend/net/tls_context.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>

namespace backend {

constexpr std::size_t LINK_MESSAGE_MAX = std::size_t{64} * 1024;

class Place;

struct LINK_EVENTS_T {
    std::function<void(const boost::system::error_code &)> accepted;
    // The bytes are valid until the next read().
    std::function<void(const boost::system::error_code &, std::span<const std::uint8_t>,
                       bool is_binary)>
        received;
    std::function<void(const boost::system::error_code &, OutMessagePtr)> written;
    // The link's place is gone: it has to be closed.
    std::function<void(const char *reason)> expelled;
};

class WebsocketLink {
public:
    virtual ~WebsocketLink() = default;
    virtual void accept() = 0;     // TLS and the upgrade, then `accepted`
    virtual void leavePlace() = 0; // the handshake is accepted
    virtual void read() = 0;       // one message, then `received`
    virtual void write(OutMessagePtr message) = 0;
    virtual void
    ping() = 0; // beside a read and a write; at most one is under way, more are left out
    // Since the last byte from the peer, whether it was read or still waits (tcp(7), TCP_INFO).
    virtual std::chrono::milliseconds silence() = 0;
    // Sends a close frame with a status code and gives the peer a second; no event comes any more.
    virtual void close(std::uint16_t code) = 0;
    virtual void abort() = 0;
};

constexpr std::uint16_t CLOSE_GOING_AWAY = 1001;
constexpr std::uint16_t CLOSE_NOT_BINARY = 1003;
constexpr std::uint16_t CLOSE_REFUSED = 1008;

// tls: null for a plain connection. place: may be null; the link has it until leavePlace, or until
// its end.
std::shared_ptr<WebsocketLink> makeWebsocketLink(boost::asio::ip::tcp::socket socket,
                                                 const std::shared_ptr<TLS_CONTEXT_T> &tls,
                                                 std::unique_ptr<Place> place,
                                                 LINK_EVENTS_T events);

} // namespace backend
