// The local ports that the back end itself forwards to a service, for clients that know nothing of
// it. Every account of the machine may connect to them; the audit names the one that did where it
// came over IPv4's loopback.
// Ownership  the record holds the listeners, until the acceptors are closed.
// Threads    the thread of the io_context.
// Failure    openForward throws std::runtime_error.
#pragma once

#include "backend/doors/account_names.h"
#include "backend/operations/operations.h"
#include "backend/options.h"

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

struct FORWARD_T {
    FORWARD_T(boost::asio::io_context &io, OPERATIONS_T &on,
              std::shared_ptr<ACCOUNT_NAMES_T> accounts, FORWARD_OPTION_T chosen)
        : operations(on), names(std::move(accounts)), option(std::move(chosen)), acceptor(io),
          pause(io)
    {
    }
    OPERATIONS_T &operations;
    std::shared_ptr<ACCOUNT_NAMES_T> names;
    FORWARD_OPTION_T option;
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer pause;
};

std::shared_ptr<FORWARD_T> openForward(boost::asio::io_context &io, OPERATIONS_T &operations,
                                       const std::shared_ptr<ACCOUNT_NAMES_T> &names,
                                       const FORWARD_OPTION_T &option);
void closeForward(FORWARD_T &forward);

} // namespace backend
