// An address and a port as texts.
#pragma once

#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>

namespace backend {

// "ADDRESS:PORT", IPv6 addresses in brackets. Port 0 lets the system choose. Throws
// std::invalid_argument whose text says what was expected.
boost::asio::ip::tcp::endpoint parseEndpoint(std::string_view text);
std::uint16_t parsePort(std::string_view text); // likewise

std::string endpointText(const boost::asio::ip::tcp::endpoint &endpoint);

// The address in such a text.
std::string addressOf(std::string_view endpoint);

} // namespace backend
