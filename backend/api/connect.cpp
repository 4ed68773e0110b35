#include "backend/api/connect.h"

#include "backend/api/session_socket.h"

#include <boost/beast/http/fields.hpp>
#include <nlohmann/json.hpp>

namespace backend {

namespace http = boost::beast::http;
using nlohmann::json;

static UpgradeRequest headerOf(const HTTP_REQUEST_T &request)
{
    UpgradeRequest header;
    header.version(11);
    header.method_string(request.method);
    header.target(request.target);
    for (const auto &[name, value] : request.fields)
        header.set(name, value);
    return header;
}

static void checkRequest(const ConnectionPtr &connection, const UpgradeRequest &header)
{
    checkUpgrade(header);
    if (!connection->reader.isEmpty())
        throw OperationFault(FAULT::BAD_REQUEST,
                             "bytes came behind the request, before it was answered");
}

static void refuseUpgrade(const ConnectionPtr &connection)
{
    REPLY_T reply = problemReply(FAULT::BAD_REQUEST, "this path takes an upgrade to a WebSocket",
                                 STATUS_UPGRADE_REQUIRED);
    reply.fields.emplace_back("Upgrade", "websocket");
    sendReply(connection, std::move(reply));
}

// Keeps the connection until the session has ended, so that it stays counted.
static void runConnect(const ConnectionPtr &connection, const SessionSocketPtr &socket,
                       const json &request)
{
    const auto call = std::make_shared<CALL_T>();
    call->who = connection->who;
    call->take_client = [socket] { return takeSessionClient(socket); };
    call->answer =
        guarded(connection, [socket](const ConnectionPtr &held, const json &answer, bool is_last) {
            if (!is_last) {
                held->is_handed_over = true;
                return openSessionSocket(socket, answer.value("session", ""),
                                         answer.value("kept", false));
            }
            if (!held->is_handed_over) sendReply(held, operationReply(answer));
        });
    connection->timer.cancel(); // the operation has its own limits
    // The call keeps the socket, so the socket must not keep the call.
    whenLost(*socket, [weak = std::weak_ptr(call)](const char *reason) {
        const CallPtr held = weak.lock();
        const SessionPtr session = held ? held->session.lock() : nullptr;
        if (session) endSession(session, reason, false);
    });
    runOperation(connection->port->operations, call, request);
}

void startConnect(const ConnectionPtr &connection)
{
    HTTP_REQUEST_T &http = connection->reader.request();
    if (!http.is_upgrade) return refuseUpgrade(connection);
    const auto request = operationRequest(*connection->match.route, http);
    if (const auto *refusal = std::get_if<REFUSAL_T>(&request))
        return sendRefusal(connection, *refusal);
    const UpgradeRequest header = headerOf(http);
    try {
        checkRequest(connection, header);
    } catch (const OperationFault &fault) {
        return sendReply(connection, problemReply(fault.fault, fault.what()));
    }
    runConnect(connection, makeSessionSocket(connection->stream, header, connection->port->limits),
               std::get<json>(request));
}

} // namespace backend
