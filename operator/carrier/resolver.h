// Addresses of a host, within a time.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>

// In the order in which the system prefers them. Throws RequestError: there are none, or they have
// not come in time.
std::vector<boost::asio::ip::tcp::endpoint> resolve(const std::string &host, std::uint16_t port,
                                                    std::chrono::steady_clock::time_point end);
