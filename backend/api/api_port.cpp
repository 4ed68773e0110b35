#include "backend/api/api_port.h"

#include "backend/api/connection.h"
#include "backend/api/http_request.h"
#include "backend/net/endpoint.h"
#include "backend/observe/log.h"

#include <algorithm>

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

constexpr std::size_t PLACES = 1024; // operators are fewer than devices
// TLS with a chain of certificates, and a whole request.
constexpr std::size_t BYTES_MAX = std::size_t{64} * 1024 + HTTP_HEADER_MAX + HTTP_BODY_MAX;

API_PORT_T::API_PORT_T(asio::io_context &context, OPERATIONS_T &on, const LIMITS_T &allowed)
    : io(context), operations(on), limits(allowed), gate(allowed.operator_rate)
{
    limits.places = std::min(limits.places, PLACES);
}

ApiPortPtr openApiPort(asio::io_context &io, OPERATIONS_T &operations, const LIMITS_T &limits,
                       const tcp::endpoint &listen, std::shared_ptr<TLS_CONTEXT_T> tls)
{
    auto port = std::make_shared<API_PORT_T>(io, operations, limits);
    port->tls = std::move(tls);
    port->admission = std::make_shared<Admission>(
        io, port->limits,
        [weak = std::weak_ptr(port)](tcp::socket socket, PlacePtr place) {
            const auto held = weak.lock();
            if (held) startConnection(held, std::move(socket), std::move(place));
        },
        BYTES_MAX);
    port->listener = std::make_shared<Listener>(io, port->admission);
    port->listener->open(listen);
    logInfo("interface for operators ready on %s",
            endpointText(port->listener->endpoint()).c_str());
    return port;
}

void closeApiPort(API_PORT_T &port)
{
    port.listener->close();
    port.admission->close();
    for (CONNECTION_T *connection : std::set(port.connections))
        if (!connection->is_handed_over) abortConnection(*connection);
}

} // namespace backend
