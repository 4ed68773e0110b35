#include "backend/server.h"

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

std::unique_ptr<SERVER_T> startServer(asio::io_context &io, SERVER_OPTIONS_T options)
{
    auto server = std::make_unique<SERVER_T>(io, std::move(options));
    server->directory.registry = std::move(server->options.registry);
    server->device_port =
        openDevicePort(io, server->directory, server->options.limits, server->options.listen,
                       std::move(server->options.tls));
    for (const FORWARD_OPTION_T &forward : server->options.forwards) {
        (void)findDevice(server->directory, forward.device); // a mistyped one shows at the start
        server->forwards.push_back(openForward(io, server->operations, forward));
    }
    if (!server->options.control.empty())
        server->control =
            openControl(io, server->operations, server->options.limits, server->options.control);
    return server;
}

void stopServer(SERVER_T &server)
{
    if (server.control) closeControl(*server.control);
    for (const auto &forward : server.forwards)
        closeForward(*forward);
    closeDevicePort(*server.device_port);
    closeDirectory(server.directory, "the back end ends");
}

tcp::endpoint listenEndpoint(const SERVER_T &server)
{
    return server.device_port->listener->endpoint();
}

tcp::endpoint forwardEndpoint(const SERVER_T &server, std::size_t index)
{
    return server.forwards[index]->acceptor.local_endpoint();
}

} // namespace backend
