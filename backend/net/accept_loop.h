// Takes one connection after the other, until the acceptor is closed.
// Ownership  the loop keeps a copy of `owner`, a pointer of any kind to a record with the members
//            `acceptor` and `pause`, a timer.
// Threads    the thread of the io_context.
// Failure    what the system or `take` (it may throw) cannot do is logged and costs this connection
//            and a pause: descriptors and memory that have run out need time to come back.
#pragma once

#include "backend/observe/log.h"

#include <chrono>
#include <exception>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

namespace backend {

constexpr auto ACCEPT_PAUSE = std::chrono::milliseconds(100);

// Throws std::runtime_error with the address and the reason.
void openListener(boost::asio::ip::tcp::acceptor &acceptor,
                  const boost::asio::ip::tcp::endpoint &endpoint);

template <class Owner, class Take> void acceptNext(const Owner &owner, Take take);

template <class Owner, class Take> void acceptAfterPause(const Owner &owner, Take take)
{
    owner->pause.expires_after(ACCEPT_PAUSE);
    owner->pause.async_wait([owner, take](const boost::system::error_code &stopped) {
        if (!stopped && owner->acceptor.is_open()) acceptNext(owner, take);
    });
}

template <class Owner, class Take> void acceptNext(const Owner &owner, Take take)
{
    owner->acceptor.async_accept(
        [owner, take](const boost::system::error_code &error, auto socket) {
            if (error == boost::asio::error::operation_aborted || !owner->acceptor.is_open())
                return;
            if (error) {
                logWarning("cannot accept a connection: %s", error.message().c_str());
                return acceptAfterPause(owner, take);
            }
            try {
                take(owner, std::move(socket));
            } catch (const std::exception &fault) {
                logWarning("a connection is turned away: %s", fault.what());
                return acceptAfterPause(owner, take);
            }
            acceptNext(owner, take);
        });
}

} // namespace backend
