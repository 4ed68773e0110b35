// TCP options of connections that stay open for days, and how a peer that has vanished is noticed.
// Threads  no shared state.
// Failure  only costs the comfort that the option gives.
#pragma once

#include <chrono>

#include <boost/asio/ip/tcp.hpp>

namespace backend {

// A keystroke leaves at once. The kernel is given little to queue beyond what is under way, so that
// a keystroke does not wait behind megabytes of bulk data. A peer that has vanished from an idle
// connection is found after about a minute.
void setPeerOptions(boost::asio::ip::tcp::socket &socket);

// Also one that has vanished with data under way. It takes along a peer that is there and reads
// nothing for a minute.
void setUserTimeout(boost::asio::ip::tcp::socket &socket);

// For a peer that may stop reading for as long as it likes: whether its kernel leaves what was sent
// unacknowledged for so long, or does not say any more that it has no room.
bool isUnanswered(boost::asio::ip::tcp::socket &socket, std::chrono::milliseconds at_least);

} // namespace backend
