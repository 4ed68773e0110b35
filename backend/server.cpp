#include "backend/server.h"

#include "backend/observe/log.h"

#include <functional>

#include <boost/asio/post.hpp>

namespace backend {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

static void loadStore(SERVER_T &server)
{
    const std::string &path = server.options.store;
    if (path.empty())
        return logInfo("no store: used signatures and when devices were last there are forgotten "
                       "at a restart");
    server.store = openStore(path, [&io = server.io](std::function<void()> function) {
        asio::post(io, std::move(function));
    });
    server.directory.records = loadDeviceRecords(server.store.get());
    forgetUnregistered(server.directory);
    server.directory.signatures = loadUsedSignatures(server.store.get(), wallClockMs());
    server.operations.host_keys = loadHostKeys(server.store.get());
    server.operations.tokens = loadTokens(server.store.get(), wallClockMs() / 1000);
    logInfo("store %s: %zu devices have been there", path.c_str(),
            server.directory.records.records.size());
}

static void tellPolicy(const SERVER_T &server)
{
    const PolicyPtr &policy = server.operations.policy;
    if (policy)
        logInfo("policy: %zu operators, %zu grants", operatorCount(*policy), grantCount(*policy));
    else if (!server.options.control.empty())
        logInfo("no policy: everyone who may write to the control socket may do everything");
}

static void loadSshAuthority(SERVER_T &server)
{
    const std::string &path = server.options.ssh_ca;
    if (path.empty()) return;
    server.operations.certificate_life = server.options.certificate_life;
    server.operations.ssh_authority =
        startSshAuthority(path, [&io = server.io](std::function<void()> function) {
            asio::post(io, std::move(function));
        });
}

std::unique_ptr<SERVER_T> startServer(asio::io_context &io, SERVER_OPTIONS_T options)
{
    auto server = std::make_unique<SERVER_T>(io, std::move(options));
    server->directory.registry = std::move(server->options.registry);
    loadStore(*server);
    loadSshAuthority(*server);
    server->operations.policy = std::move(server->options.policy);
    tellPolicy(*server);
    server->device_port = openDevicePort(io, server->directory, server->options.limits,
                                         server->options.listen, std::move(server->options.tls));
    server->names = startAccountNames(io);
    for (const FORWARD_OPTION_T &forward : server->options.forwards) {
        (void)findDevice(server->directory, forward.device); // a mistyped one shows at the start
        server->forwards.push_back(openForward(io, server->operations, server->names, forward));
    }
    if (!server->options.control.empty())
        server->control = openControl(io, server->operations, server->options.limits, server->names,
                                      server->options.control);
    if (server->options.api)
        server->api = openApiPort(io, server->operations, server->options.limits,
                                  *server->options.api, std::move(server->options.api_tls));
    return server;
}

void stopServer(SERVER_T &server)
{
    if (server.api) closeApiPort(*server.api);
    if (server.control) closeControl(*server.control);
    for (const auto &forward : server.forwards)
        closeForward(*forward);
    stopAccountNames(*server.names);
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
