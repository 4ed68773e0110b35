#include "backend/net/endpoint.h"

#include <charconv>
#include <cstdint>
#include <stdexcept>

#include <boost/asio/ip/address.hpp>

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

std::uint16_t parsePort(std::string_view text)
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

std::string endpointText(const tcp::endpoint &endpoint)
{
    const std::string address = endpoint.address().to_string();
    const std::string port = std::to_string(endpoint.port());
    return endpoint.address().is_v6() ? "[" + address + "]:" + port : address + ":" + port;
}

std::string addressOf(std::string_view endpoint)
{
    return std::string(endpoint.substr(0, endpoint.rfind(':')));
}

} // namespace backend
