#include "backend/operations/access.h"
#include "backend/operations/verbs.h"

#include <algorithm>
#include <limits>

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
        json row = {{"session", number},
                    {"product", session->device.product_key},
                    {"device", session->device.device_name},
                    {"service", session->service.name},
                    {"who", session->origin.who},
                    {"from", session->origin.from},
                    {"shared", session->origin.is_shared},
                    {"since", session->asked_at},
                    {"bytes_up", session->bytes_up},
                    {"bytes_down", session->bytes_down}};
        if (session->origin.kept) {
            row["kept"] = session->origin.kept->mark;
            row["resumed"] = session->origin.kept->isResumed();
        }
        sessions.push_back(std::move(row));
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

// The session's channel may be another one by now, or the session may be off it already.
static void tellKeeper(const OPERATIONS_T &operations, const SESSION_T &session)
{
    const ChannelPtr channel = findChannel(operations.directory, session.device);
    if (channel) tellKeeperOfEnd(*channel, session.origin.kept->opening);
}

static KEEPING_T keepFor(const CALL_T &call, const DEVICE_CHANNEL_T &channel,
                         const SERVICE_T &service)
{
    constexpr std::chrono::seconds MOST{std::numeric_limits<std::uint32_t>::max()};
    keep::OPENING_T opening;
    opening.kind = call.arguments.is_resumed ? keep::OPENING::RESUME : keep::OPENING::BEGIN;
    opening.key = *call.arguments.keep;
    opening.who = call.who.name;
    if (call.max_session)
        opening.longest_s = static_cast<std::uint32_t>(std::min(*call.max_session, MOST).count());
    const auto kept = keepService(channel, service, std::move(opening));
    if (!kept)
        throw OperationFault(FAULT::NO_KEEPER, call.arguments.device->device_name +
                                                   " cannot keep a session to " + service.name);
    return *kept;
}

static void start(OPERATIONS_T &operations, const CallPtr &call)
{
    const ARGUMENTS_T &wanted = call->arguments;
    const ChannelPtr channel = channelOf(operations, *wanted.device);
    const SERVICE_T *service = findService(*channel, wanted.service);
    if (service == nullptr)
        throw OperationFault(FAULT::NOT_FOUND, noSuchService(*wanted.device, wanted.service));
    std::optional<KEEPING_T> kept;
    if (wanted.keep) kept = keepFor(*call, *channel, *service);
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
        json answer = {{"ok", true}, {"session", session.number}};
        if (session.origin.kept) answer["kept"] = true;
        call->answer(answer, false);
    };
    client.ended = [call, &operations](const SESSION_T &session) {
        tellEnd(*call, session);
        if (session.is_final) tellKeeper(operations, session);
    };
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
        if (fault.fault == FAULT::NO_KEEPER) throw; // a plain session is asked for next
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
    endForGood(session, "closed by " + call->who.name);
    call->answer({{"ok", true}}, true);
}

} // namespace backend
