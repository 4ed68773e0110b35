#include "backend/doors/forwards.h"

#include "backend/net/accept_loop.h"
#include "backend/net/endpoint.h"
#include "backend/observe/log.h"
#include "backend/operations/sign_in.h"
#include "backend/sessions/socket_client.h"
#include "utility/socket_owner.h"

#include <nlohmann/json.hpp>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

static constinit LINE_LIMIT_T g_turned_away{"clients of forwarded ports turned away"};

static void carry(const std::shared_ptr<FORWARD_T> &forward, const CallPtr &call,
                  const std::string &account, const std::string &from)
{
    call->who = accountPrincipal(forward->operations, DOOR::FORWARDED_PORT, account, from);
    runOperation(forward->operations, call,
                 {{"do", "connect"},
                  {"device", forward->option.device},
                  {"service", forward->option.service}});
}

static void takeClient(const std::shared_ptr<FORWARD_T> &forward, tcp::socket socket)
{
    error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    const std::optional<uid_t> owner = loopback_peer_owner(socket.native_handle());
    const auto client = std::make_shared<SessionClientPtr>(makeSocketClient(std::move(socket)));
    const auto call = std::make_shared<CALL_T>();
    const std::string from = error ? "(gone)" : endpointText(peer);
    call->take_client = [client] { return std::move(*client); };
    call->answer = [forward, client, from](const nlohmann::json &line, bool /*is_last*/) {
        if (line.value("ok", true)) return;
        logLimited(g_turned_away, LOG_LEVEL::WARNING, "client %s for %s/%s turned away: %s",
                   from.c_str(), forward->option.device.c_str(), forward->option.service.c_str(),
                   line.value("error", "").c_str());
        if (*client) (*client)->close({}, false);
    };
    if (!owner) return carry(forward, call, "unknown", from);
    lookUpAccount(forward->names, *owner, [forward, call, from](const std::string &name) {
        carry(forward, call, name, from);
    });
}

std::shared_ptr<FORWARD_T> openForward(asio::io_context &io, OPERATIONS_T &operations,
                                       const std::shared_ptr<ACCOUNT_NAMES_T> &names,
                                       const FORWARD_OPTION_T &option)
{
    auto forward = std::make_shared<FORWARD_T>(io, operations, names, option);
    openListener(forward->acceptor, option.listen);
    acceptNext(forward, takeClient);
    logInfo("forward %s to %s/%s ready", endpointText(forward->acceptor.local_endpoint()).c_str(),
            option.device.c_str(), option.service.c_str());
    return forward;
}

void closeForward(FORWARD_T &forward)
{
    error_code ignored;
    forward.acceptor.close(ignored);
    forward.pause.cancel();
}

} // namespace backend
