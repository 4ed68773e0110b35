#include "backend/operations/operations.h"

#include "backend/observe/audit.h"
#include "backend/observe/metrics.h"

#include <array>
#include <stdexcept>
#include <strings.h>
#include <utility>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

CALL_T::~CALL_T()
{
    explicit_bzero(arguments.password.data(), arguments.password.size());
}

static void refuse(const CALL_T &call, const std::string &error)
{
    call.answer({{"ok", false}, {"error", error}}, true);
}

// ---- what a request says

static std::string memberOf(const json &request, const char *name)
{
    const auto found = request.find(name);
    if (found == request.end() || !found->is_string() ||
        found->get_ref<const std::string &>().empty())
        throw std::runtime_error(std::string("the request has no \"") + name + "\"");
    return found->get<std::string>();
}

static void parseNothing(const OPERATIONS_T & /*operations*/, ARGUMENTS_T & /*arguments*/,
                         const json & /*request*/)
{
}

static void parseDevice(const OPERATIONS_T &operations, ARGUMENTS_T &arguments, const json &request)
{
    arguments.device = findDevice(operations.directory, memberOf(request, "device"));
}

static void parseDisconnect(const OPERATIONS_T &operations, ARGUMENTS_T &arguments,
                            const json &request)
{
    if (request.contains("reason")) arguments.reason = memberOf(request, "reason");
    parseDevice(operations, arguments, request);
}

static void parseService(const OPERATIONS_T &operations, ARGUMENTS_T &arguments,
                         const json &request)
{
    arguments.service = memberOf(request, "service");
    arguments.is_shared = request.value("shared", false);
    arguments.client = request.value("client", "");
    parseDevice(operations, arguments, request);
}

static void parseAccount(const OPERATIONS_T &operations, ARGUMENTS_T &arguments,
                         const json &request)
{
    arguments.user = memberOf(request, "user");
    arguments.password = memberOf(request, "password");
    parseDevice(operations, arguments, request);
}

static void parseSession(const OPERATIONS_T & /*operations*/, ARGUMENTS_T &arguments,
                         const json &request)
{
    arguments.session = memberOf(request, "session");
}

// ---- what runs

// Who asked for what.
static AuditMembers recordOf(const CALL_T &call)
{
    AuditMembers record{{"who", call.who.name}, {"from", call.who.from}};
    const ARGUMENTS_T &asked = call.arguments;
    if (asked.device) {
        record.emplace_back("product", asked.device->product_key);
        record.emplace_back("device", asked.device->device_name);
    }
    const std::array<AUDIT_MEMBER_T, 4> texts{{{"service", asked.service},
                                               {"session", asked.session},
                                               {"account", asked.user},
                                               {"reason", asked.reason}}};
    for (const AUDIT_MEMBER_T &text : texts)
        if (!std::get<std::string>(text.value).empty()) record.push_back(text);
    return record;
}

// The channel of the device that is meant, or std::runtime_error in words for the operator.
static ChannelPtr channelOf(const OPERATIONS_T &operations, const CALL_T &call)
{
    const DEVICE_KEY_T &device = *call.arguments.device;
    ChannelPtr channel = findChannel(operations.directory, device);
    if (!channel) throw std::runtime_error(device.device_name + " is not connected");
    if (isSilent(*channel)) {
        throw std::runtime_error(device.device_name + " is not answering (last heard " +
                                 std::to_string(silenceOf(*channel).count() / 1000) + " s ago)");
    }
    return channel;
}

static const char *stateText(const ChannelPtr &channel)
{
    if (!channel) return "away";
    return isSilent(*channel) ? "not answering" : "connected";
}

static json deviceJson(const DEVICE_VIEW_T &view)
{
    json device = {{"product", view.key->product_key},
                   {"device", view.key->device_name},
                   {"connected", view.channel != nullptr},
                   {"state", stateText(view.channel)},
                   {"duplicate", view.is_duplicate}};
    if (view.channel) {
        device["peer"] = view.channel->peer;
        device["since"] = view.channel->connected_at;
        device["services"] = view.channel->services.size();
        device["sessions"] = view.channel->streams.size();
    }
    if (view.record != nullptr) {
        device["last_seen"] = view.record->last_seen_ms / 1000;
        device["last_reason"] = view.record->last_reason;
        device["last_address"] = view.record->last_address;
    }
    return device;
}

static void listDevices(OPERATIONS_T &operations, const CallPtr &call)
{
    json devices = json::array();
    for (const DEVICE_VIEW_T &view : viewDevices(operations.directory)) {
        if (decide(nullptr, call->who, RIGHT::LIST, {view.key, nullptr, {}}).isAllowed())
            devices.push_back(deviceJson(view));
    }
    call->answer({{"ok", true}, {"devices", std::move(devices)}}, true);
}

static void listServices(OPERATIONS_T &operations, const CallPtr &call)
{
    const ChannelPtr channel = findChannel(operations.directory, *call->arguments.device);
    if (!channel)
        throw std::runtime_error(call->arguments.device->device_name + " is not connected");
    json services = json::array();
    for (const SERVICE_T &service : channel->services) {
        services.push_back({{"name", service.name},
                            {"type", service.type},
                            {"ip", service.ip},
                            {"port", service.port}});
    }
    call->answer({{"ok", true}, {"services", std::move(services)}}, true);
}

static void listSessions(OPERATIONS_T &operations, const CallPtr &call)
{
    json sessions = json::array();
    for (const auto &[number, weak] : operations.sessions->sessions) {
        const SessionPtr session = weak.lock();
        if (!session || session->state == SESSION_STATE::CLOSED) continue;
        if (!decide(nullptr, call->who, RIGHT::LIST,
                    {&session->device, nullptr, session->service.name})
                 .isAllowed())
            continue;
        sessions.push_back({{"session", number},
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

static void showStatus(OPERATIONS_T & /*operations*/, const CallPtr &call)
{
    json metrics = json::array();
    for (std::size_t i = 0; i < metricCount(); i++) {
        const METRIC_VALUE_T metric = readMetric(i);
        metrics.push_back({{"name", metric.name}, {"help", metric.help}, {"value", metric.value}});
    }
    call->answer({{"ok", true}, {"version", RA_VERSION}, {"metrics", std::move(metrics)}}, true);
}

static void verifyAccount(OPERATIONS_T &operations, const CallPtr &call)
{
    const auto answered = [call](const ACCOUNT_RESULT_T &result) {
        AuditMembers members = recordOf(*call);
        members.emplace_back("right", result.is_answered && result.code == 0);
        members.emplace_back("reason", result.message);
        auditRecord(AUDIT_EVENT::ACCOUNT_RESULT, members);
        if (!result.is_answered) return refuse(*call, result.message);
        call->answer({{"ok", true}, {"code", result.code}, {"message", result.message}}, true);
    };
    ChannelPtr channel;
    try {
        channel = channelOf(operations, *call);
    } catch (const std::runtime_error &fault) {
        return answered({false, 0, fault.what()});
    }
    requestAccountCheck(*channel, call->arguments.user, call->arguments.password, answered);
}

static void connectClient(OPERATIONS_T &operations, const CallPtr &call)
{
    const ARGUMENTS_T &wanted = call->arguments;
    const auto turn_away = [&](const std::string &reason) {
        auditSessionRefused({"", wanted.device->product_key, wanted.device->device_name,
                             call->who.name, call->who.from, wanted.service},
                            reason);
        refuse(*call, reason);
    };
    ChannelPtr channel;
    try {
        channel = channelOf(operations, *call);
    } catch (const std::runtime_error &fault) {
        return turn_away(fault.what());
    }
    const SERVICE_T *service = findService(*channel, wanted.service);
    if (service == nullptr)
        return turn_away(wanted.device->device_name + " does not offer " + wanted.service);
    SessionClientPtr stream = call->take_client();
    if (!stream) return turn_away("no connected stream socket came with the request");
    CLIENT_T client{std::move(stream), call->who.name, call->who.from,
                    wanted.is_shared,  nullptr,        nullptr};
    // The operator answers for the session; who used it stands beside that.
    if (wanted.is_shared)
        client.from += ", shared port used by " +
                       (wanted.client.empty() ? "an unknown account" : wanted.client);
    client.opened = [call](const SESSION_T &session) {
        call->answer({{"ok", true}, {"session", session.number}}, false);
    };
    client.ended = [call](const SESSION_T &session) {
        if (session.token.empty()) return refuse(*call, session.end_reason);
        call->answer({{"ended", session.end_reason},
                      {"whole", session.is_whole},
                      {"bytes_up", session.bytes_up},
                      {"bytes_down", session.bytes_down}},
                     true);
    };
    call->session = startSession(operations.sessions, *channel, std::move(client), *service);
}

static void disconnectDevice(OPERATIONS_T &operations, const CallPtr &call)
{
    const DEVICE_KEY_T &device = *call->arguments.device;
    const ChannelPtr channel = findChannel(operations.directory, device);
    if (!channel) throw std::runtime_error(device.device_name + " is not connected");
    std::string reason = "disconnected by " + call->who.name;
    if (!call->arguments.reason.empty()) reason += ": " + call->arguments.reason;
    closeDeviceChannel(*channel, CLOSE_GOING_AWAY, reason);
    call->answer({{"ok", true}}, true);
}

static void closeSession(OPERATIONS_T &operations, const CallPtr &call)
{
    const SessionPtr session = findSession(*operations.sessions, call->arguments.session);
    if (!session || session->state == SESSION_STATE::CLOSED)
        throw std::runtime_error("no session has the number " + call->arguments.session);
    endSession(session, "closed by " + call->who.name, false);
    call->answer({{"ok", true}}, true);
}

// ---- the table

struct OPERATION_T {
    std::string_view verb;
    void (*parse)(const OPERATIONS_T &operations, ARGUMENTS_T &arguments, const json &request);
    RIGHT right;
    // What must be in the audit before it runs; nothing where that is recorded as it happens.
    std::optional<AUDIT_EVENT> record;
    void (*run)(OPERATIONS_T &operations, const CallPtr &call);
};

constexpr auto OPERATIONS = std::to_array<OPERATION_T>({
    {"devices", parseNothing, RIGHT::LIST, std::nullopt, listDevices},
    {"services", parseDevice, RIGHT::LIST, std::nullopt, listServices},
    {"sessions", parseNothing, RIGHT::LIST, std::nullopt, listSessions},
    {"status", parseNothing, RIGHT::LIST, std::nullopt, showStatus},
    {"verify", parseAccount, RIGHT::VERIFY, AUDIT_EVENT::ACCOUNT_CHECK, verifyAccount},
    {"connect", parseService, RIGHT::CONNECT, std::nullopt, connectClient},
    {"disconnect", parseDisconnect, RIGHT::MANAGE, AUDIT_EVENT::DEVICE_DISCONNECT,
     disconnectDevice},
    {"close", parseSession, RIGHT::CLOSE, AUDIT_EVENT::SESSION_CLOSE, closeSession},
});

static void runGuarded(OPERATIONS_T &operations, const OPERATION_T &operation, const CallPtr &call)
{
    try {
        operation.run(operations, call);
    } catch (const std::exception &fault) {
        refuse(*call, fault.what());
    }
}

static void runAllowed(OPERATIONS_T &operations, const OPERATION_T &operation, const CallPtr &call)
{
    if (!operation.record) return runGuarded(operations, operation, call);
    auditRecord(*operation.record, recordOf(*call),
                [&operations, &operation, call](bool is_recorded) {
                    if (is_recorded) return runGuarded(operations, operation, call);
                    refuse(*call, "the audit cannot be written");
                });
}

static const OPERATION_T &operationOf(const json &request)
{
    if (!request.is_object()) throw std::runtime_error("the request is no JSON object");
    const std::string wanted = memberOf(request, "do");
    for (const OPERATION_T &operation : OPERATIONS)
        if (operation.verb == wanted) return operation;
    throw std::runtime_error("unknown request \"" + wanted + "\"");
}

// What was asked for and did not come to be; a look at lists leaves no line.
static void recordDenial(const OPERATION_T &operation, const CALL_T &call,
                         const std::string &reason)
{
    if (operation.right == RIGHT::LIST) return;
    AuditMembers record = recordOf(call);
    record.emplace_back("do", operation.verb);
    record.emplace_back("reason", reason);
    auditRecord(AUDIT_EVENT::DENIED, record);
}

static DECISION_T parseAndDecide(OPERATIONS_T &operations, const OPERATION_T &operation,
                                 CALL_T &call, const json &request)
{
    ARGUMENTS_T &arguments = call.arguments;
    try {
        operation.parse(operations, arguments, request);
    } catch (const std::exception &fault) {
        return {VERDICT::DENIED, fault.what(), {}, {}};
    }
    return decide(nullptr, call.who, operation.right,
                  {arguments.device ? &*arguments.device : nullptr, nullptr, arguments.service});
}

void runOperation(OPERATIONS_T &operations, const CallPtr &call, const json &request)
{
    try {
        const OPERATION_T &operation = operationOf(request);
        const DECISION_T decision = parseAndDecide(operations, operation, *call, request);
        if (decision.isAllowed()) return runAllowed(operations, operation, call);
        recordDenial(operation, *call, decision.reason);
        refuse(*call, decision.reason);
    } catch (const std::exception &fault) {
        refuse(*call, fault.what());
    }
}

} // namespace backend
