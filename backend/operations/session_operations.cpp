#include "backend/operations/access.h"
#include "backend/operations/verbs.h"

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

void listSessions(OPERATIONS_T &operations, const CallPtr &call)
{
    json sessions = json::array();
    for (const auto &[number, weak] : operations.sessions->sessions) {
        const SessionPtr session = weak.lock();
        if (!session || session->state == SESSION_STATE::CLOSED) continue;
        if (!decideFor(operations, call->who, RIGHT::LIST, &session->device, session->service.name)
                 .isAllowed())
            continue;
        sessions.push_back({{"kept", session->origin.kept.has_value()},
                            {"session", number},
                            {"product", session->device.product_key},
                            {"device", session->device.device_name},
                            {"service", session->service.name},
                            {"who", session->origin.who},
                            {"from", session->origin.from},
                            {"shared", session->origin.is_shared},
                            {"since", session->asked_at},
                            {"bytes_up", session->bytes_up},
                            {"bytes_down", session->bytes_down}});
    }
    call->answer({{"ok", true}, {"sessions", std::move(sessions)}}, true);
}

// The operator answers for the session; who used it stands beside that.
static std::string originText(const CALL_T &call)
{
    const ARGUMENTS_T &wanted = call.arguments;
    if (!wanted.is_shared) return call.who.from;
    return call.who.from + ", shared port used by " +
           (wanted.client.empty() ? "an unknown account" : wanted.client);
}

static void tellEnd(const CALL_T &call, const SESSION_T &session)
{
    if (session.token.empty())
        return refuse(call, auditAccepts() ? FAULT::DEVICE_REFUSED : FAULT::UNAVAILABLE,
                      session.end_reason);
    json end = {{"ended", session.end_reason},
                {"whole", session.is_whole},
                {"bytes_up", session.bytes_up},
                {"bytes_down", session.bytes_down}};
    if (session.is_final) end["final"] = true;
    call.answer(end, true);
}

// What goes to the keeper in place of the service. Throws OperationFault.
static KEPT_CARRIER_T keptCarrier(const CALL_T &call, const DEVICE_CHANNEL_T &channel,
                                  const SERVICE_T &service)
{
    const ARGUMENTS_T &wanted = call.arguments;
    const SERVICE_T *const keeper = findKeeper(channel);
    if (keeper == nullptr)
        throw OperationFault(FAULT::NO_KEEPER, wanted.device->device_name + " keeps no sessions");
    const auto longest = call.max_session.value_or(std::chrono::seconds(0)).count();
    return {*keeper,
            {.kind = wanted.is_resumed ? keep::OPENING::RESUME : keep::OPENING::BEGIN,
             .key = *wanted.keep,
             .longest_s = static_cast<std::uint32_t>(longest),
             .service = {service.type, service.name, service.ip,
                         static_cast<std::uint16_t>(service.port)},
             .who = call.who.name}};
}

static void start(OPERATIONS_T &operations, const CallPtr &call)
{
    const ARGUMENTS_T &wanted = call->arguments;
    const ChannelPtr channel = channelOf(operations, *wanted.device);
    const SERVICE_T *service = findService(*channel, wanted.service);
    if (service == nullptr)
        throw OperationFault(FAULT::NOT_FOUND, noSuchService(*wanted.device, wanted.service));
    std::optional<KEPT_CARRIER_T> kept;
    if (wanted.keep) kept = keptCarrier(*call, *channel, *service);
    SessionClientPtr stream = call->take_client();
    if (!stream)
        throw OperationFault(FAULT::BAD_REQUEST,
                             "no connected stream socket came with the request");
    CLIENT_T client{.stream = std::move(stream),
                    .who = call->who.name,
                    .from = originText(*call),
                    .is_shared = wanted.is_shared,
                    .opened = nullptr,
                    .ended = nullptr,
                    .max_session = call->max_session,
                    .kept = std::move(kept)};
    client.opened = [call](const SESSION_T &session) {
        json opened = {{"ok", true}, {"session", session.number}};
        if (session.origin.kept) opened["kept"] = true;
        call->answer(opened, false);
    };
    client.ended = [call](const SESSION_T &session) { tellEnd(*call, session); };
    const SessionPtr session =
        startSession(operations.sessions, *channel, std::move(client), *service);
    call->session = session;
    noteSession(operations.session_owners, session, call->who);
}

void connectClient(OPERATIONS_T &operations, const CallPtr &call)
{
    try {
        start(operations, call);
    } catch (const OperationFault &fault) {
        const ARGUMENTS_T &wanted = call->arguments;
        // The tool then asks for a plain one: nobody was refused anything.
        if (fault.fault != FAULT::NO_KEEPER)
            auditSessionRefused({"", wanted.device->product_key, wanted.device->device_name,
                                 call->who.name, call->who.from, wanted.service},
                                fault.what());
        throw;
    }
}

void closeSession(OPERATIONS_T &operations, const CallPtr &call)
{
    const SessionPtr session = findSession(*operations.sessions, call->arguments.session);
    if (!session || session->state == SESSION_STATE::CLOSED)
        throw OperationFault(FAULT::NOT_FOUND, noSuchSession(call->arguments.session));
    endSessionForGood(session, "closed by " + call->who.name);
    call->answer({{"ok", true}}, true);
}

} // namespace backend
