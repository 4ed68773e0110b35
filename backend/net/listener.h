// The devices' port. It accepts while descriptors last; what comes beyond waits in the kernel's
// queue. Some descriptors are kept back for operators and files: before they are touched, the
// longest silent connection without a handshake makes room.
// Ownership  a listener that accepts keeps itself alive until it is closed.
// Threads    the thread of the io_context.
// Failure    open throws std::runtime_error. What cannot be accepted later is logged and costs this
//            connection and a pause: descriptors and memory that have run out need time to come
//            back.
#pragma once

#include "backend/net/admission.h"

#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

constexpr int DESCRIPTORS_KEPT_BACK = 64;

// As many descriptors as the process may have: the soft limit becomes the hard one.
void raiseDescriptorLimit();

class Listener : public std::enable_shared_from_this<Listener> {
public:
    using Endpoint = boost::asio::ip::tcp::endpoint;

    Listener(boost::asio::io_context &io, std::shared_ptr<Admission> admission);

    void open(const Endpoint &endpoint); // and accepts from then on
    void close();
    [[nodiscard]] Endpoint endpoint() const
    {
        return acceptor_.local_endpoint();
    }

private:
    void acceptNext();
    void acceptAfterPause();
    bool take(boost::asio::ip::tcp::socket socket);
    bool hasDescriptors();

    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    std::shared_ptr<Admission> admission_;
    int highest_ = 0; // number of a descriptor that the devices' connections may have
};

} // namespace backend
