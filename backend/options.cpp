#include "backend/options.h"

#include "backend/net/endpoint.h"

#include <stdexcept>

#include <boost/asio/ip/address.hpp>

namespace backend {

namespace asio = boost::asio;

FORWARD_OPTION_T parseForward(std::string_view text)
{
    const std::size_t equals = text.find('=');
    const std::size_t slash = text.find('/', equals == std::string_view::npos ? 0 : equals);
    if (equals == std::string_view::npos || slash == std::string_view::npos ||
        slash == equals + 1 || slash + 1 == text.size()) {
        throw std::invalid_argument("\"" + std::string(text) +
                                    "\" is no LOCAL_PORT=DEVICE/SERVICE_NAME");
    }
    const std::string_view local = text.substr(0, equals);
    FORWARD_OPTION_T forward;
    if (local.find(':') != std::string_view::npos)
        forward.listen = parseEndpoint(local);
    else
        forward.listen = {asio::ip::address_v4::loopback(), parsePort(local)};
    forward.device = text.substr(equals + 1, slash - equals - 1);
    forward.service = text.substr(slash + 1);
    return forward;
}

} // namespace backend
