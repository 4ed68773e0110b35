#include "backend/options.h"

#include <charconv>
#include <cstdint>
#include <stdexcept>

#include <boost/asio/ip/address.hpp>

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

static std::uint16_t parsePort(std::string_view text)
{
    std::uint16_t port = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
    if (text.empty() || result.ec != std::errc{} || result.ptr != text.data() + text.size()) {
        throw std::invalid_argument("\"" + std::string(text) + "\" is no port (0 to 65535)");
    }
    return port;
}

tcp::endpoint parseEndpoint(std::string_view text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        throw std::invalid_argument("\"" + std::string(text) + "\" is no ADDRESS:PORT");
    std::string_view host = text.substr(0, colon);
    const bool in_brackets = host.starts_with('[') && host.ends_with(']');
    if (in_brackets) host = host.substr(1, host.size() - 2);
    boost::system::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    if (error || address.is_v6() != in_brackets) {
        throw std::invalid_argument("\"" + std::string(text.substr(0, colon)) +
                                    "\" is no address (numeric, IPv6 in brackets)");
    }
    return {address, parsePort(text.substr(colon + 1))};
}

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

std::string endpointText(const tcp::endpoint &endpoint)
{
    const std::string address = endpoint.address().to_string();
    const std::string port = std::to_string(endpoint.port());
    return endpoint.address().is_v6() ? "[" + address + "]:" + port : address + ":" + port;
}

} // namespace backend
