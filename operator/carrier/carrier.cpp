#include "operator/carrier/carrier.h"

#include "operator/carrier/control_client.h"
#include "operator/carrier/control_session.h"
#include "operator/carrier/https_client.h"
#include "operator/carrier/websocket_session.h"

using nlohmann::json;

BACK_END_T backEndAt(const SERVER_T &server)
{
    return {server, server.control.empty() ? makeHttpsClient(server) : nullptr};
}

json ask(const BACK_END_T &back_end, const json &request, std::chrono::seconds time)
{
    if (back_end.https) return askHttps(*back_end.https, request, time);
    CONTROL_CLIENT_T client = openRequest(back_end.server.control, request, time);
    json answer = onlyAnswer(client, time);
    answer.erase("ok");
    return answer;
}

std::unique_ptr<Session> openSession(const BACK_END_T &back_end, const json &request,
                                     SESSION_ENDS_T &ends, std::chrono::seconds time)
{
    return back_end.https ? openWebSocketSession(*back_end.https, request, ends, time)
                          : openControlSession(back_end.server.control, request, ends, time);
}
