#include "backend/net/accept_loop.h"

#include "backend/net/endpoint.h"

#include <stdexcept>

namespace backend {

using tcp = boost::asio::ip::tcp;

void openListener(tcp::acceptor &acceptor, const tcp::endpoint &endpoint)
{
    try {
        acceptor.open(endpoint.protocol());
        acceptor.set_option(tcp::acceptor::reuse_address(true));
        acceptor.bind(endpoint);
        acceptor.listen();
    } catch (const boost::system::system_error &fault) {
        throw std::runtime_error("cannot listen on " + endpointText(endpoint) + ": " +
                                 fault.code().message());
    }
}

} // namespace backend
