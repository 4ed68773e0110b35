#include "backend/operations/operations.h"

#include "backend/operations/access.h"
#include "backend/operations/verbs.h"

#include <array>
#include <strings.h>
#include <utility>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

CALL_T::~CALL_T()
{
    explicit_bzero(arguments.password.data(), arguments.password.size());
}

void refuse(const CALL_T &call, FAULT fault, const std::string &error)
{
    call.answer({{"ok", false}, {"error", error}, {"kind", faultKind(fault).name}}, true);
}

AuditMembers recordOf(const CALL_T &call)
{
    AuditMembers record{{"who", call.who.name}, {"from", call.who.from}};
    const ARGUMENTS_T &asked = call.arguments;
    if (asked.device) {
        record.emplace_back("product", asked.device->product_key);
        record.emplace_back("device", asked.device->device_name);
    }
    const std::array<AUDIT_MEMBER_T, 6> texts{{{"service", asked.service},
                                               {"session", asked.session},
                                               {"account", asked.user},
                                               {"token", asked.id},
                                               {"label", asked.label},
                                               {"reason", asked.reason}}};
    for (const AUDIT_MEMBER_T &text : texts)
        if (!std::get<std::string>(text.value).empty()) record.push_back(text);
    return record;
}

struct OPERATION_T {
    std::string_view verb;
    ParseFunction parse;
    // For the device and service that are asked for, or for every device where none is. Nothing:
    // everyone who has signed in; what he may see is decided for each element.
    std::optional<RIGHT> right;
    // What must be in the audit before it runs; nothing where that is recorded as it happens.
    std::optional<AUDIT_EVENT> record;
    void (*run)(OPERATIONS_T &operations, const CallPtr &call);
};

constexpr auto OPERATIONS = std::to_array<OPERATION_T>({
    {"devices", parseList, std::nullopt, std::nullopt, listDevices},
    {"device", parseDevice, RIGHT::LIST, std::nullopt, showDevice},
    {"services", parseDevice, RIGHT::LIST, std::nullopt, listServices},
    {"sessions", parseNothing, std::nullopt, std::nullopt, listSessions},
    {"status", parseNothing, RIGHT::LIST, std::nullopt, showStatus},
    {"whoami", parseNothing, std::nullopt, std::nullopt, showOperator},
    {"can", parseQuestion, std::nullopt, std::nullopt, answerQuestion},
    {"verify", parseAccount, RIGHT::VERIFY, AUDIT_EVENT::ACCOUNT_CHECK, verifyAccount},
    {"connect", parseConnect, RIGHT::CONNECT, std::nullopt, connectClient},
    {"disconnect", parseDisconnect, RIGHT::MANAGE, AUDIT_EVENT::DEVICE_DISCONNECT,
     disconnectDevice},
    {"open", parseDevice, RIGHT::OPEN, std::nullopt, switchAccess},
    {"close-access", parseDevice, RIGHT::OPEN, std::nullopt, switchAccess},
    {"close", parseSession, RIGHT::CLOSE, AUDIT_EVENT::SESSION_CLOSE, closeSession},
    {"host-keys", parseHostKeys, RIGHT::CONNECT, std::nullopt, learnHostKeys},
    {"host-keys-forget", parseService, RIGHT::MANAGE, AUDIT_EVENT::HOST_KEY_FORGET,
     forgetShownKeys},
    {"ssh-certificate", parseKeyToSign, RIGHT::CONNECT, std::nullopt, signKey},
    {"tokens", parseNothing, std::nullopt, std::nullopt, listTokens},
    {"token-make", parseNewToken, std::nullopt, AUDIT_EVENT::TOKEN_MAKE, makeOwnToken},
    {"token-revoke", parseToken, std::nullopt, AUDIT_EVENT::TOKEN_REVOKE, revokeOwnToken},
    {"reload", parseNothing, RIGHT::MANAGE, std::nullopt, reloadFiles},
});

static void runGuarded(OPERATIONS_T &operations, const OPERATION_T &operation, const CallPtr &call)
{
    try {
        operation.run(operations, call);
    } catch (const OperationFault &fault) {
        refuse(*call, fault.fault, fault.what());
    } catch (const std::exception &fault) {
        refuse(*call, FAULT::UNAVAILABLE, fault.what());
    }
}

static void runAllowed(OPERATIONS_T &operations, const OPERATION_T &operation, const CallPtr &call)
{
    if (!operation.record) return runGuarded(operations, operation, call);
    auditRecord(*operation.record, recordOf(*call),
                [&operations, &operation, call](bool is_recorded) {
                    if (is_recorded) return runGuarded(operations, operation, call);
                    refuse(*call, FAULT::UNAVAILABLE, "the audit cannot be written");
                });
}

static const OPERATION_T &operationOf(const json &request)
{
    const std::string_view wanted = verbOf(request);
    for (const OPERATION_T &operation : OPERATIONS)
        if (operation.verb == wanted) return operation;
    throw OperationFault(FAULT::BAD_REQUEST, "unknown request \"" + std::string(wanted) + "\"");
}

// What was asked for and did not come to be; a look at lists leaves no line.
static void recordDenial(const OPERATION_T &operation, const CALL_T &call,
                         const std::string &reason)
{
    const bool is_look = operation.right ? operation.right == RIGHT::LIST : !operation.record;
    if (is_look) return;
    AuditMembers record = recordOf(call);
    record.emplace_back("do", operation.verb);
    record.emplace_back("reason", reason);
    auditRecord(AUDIT_EVENT::DENIED, record);
}

// The machine's administrator may have files read again (he can send the signal, too), and everyone
// may end what he began.
static bool isOwnMatter(const OPERATIONS_T &operations, const OPERATION_T &operation,
                        const CALL_T &call)
{
    if (operation.run == reloadFiles) return call.who.is_host_admin;
    if (operation.run != closeSession || !call.who.is_operator) return false;
    const SessionPtr session = findSession(*operations.sessions, call.arguments.session);
    return session && session->origin.who == call.who.name;
}

// In words that say no more than he may know.
static OperationFault denialOf(const OPERATIONS_T &operations, const CALL_T &call,
                               const DECISION_T &decision)
{
    const ARGUMENTS_T &asked = call.arguments;
    if (decision.verdict != VERDICT::UNKNOWN || !asked.device)
        return {FAULT::DENIED, decision.reason};
    if (!asked.session.empty()) return {FAULT::NOT_FOUND, noSuchSession(asked.session)};
    const VERDICT device = decideFor(operations, call.who, RIGHT::LIST, &*asked.device, {}).verdict;
    if (device == VERDICT::UNKNOWN)
        return {FAULT::NOT_FOUND, noSuchDevice(asked.device->device_name)};
    return {FAULT::NOT_FOUND, noSuchService(*asked.device, asked.service)};
}

// Throws OperationFault unless the call may run.
static void permit(const OPERATIONS_T &operations, const OPERATION_T &operation, CALL_T &call)
{
    if (!operation.right || isOwnMatter(operations, operation, call)) return;
    const ARGUMENTS_T &asked = call.arguments;
    const DECISION_T decision = decideFor(operations, call.who, *operation.right,
                                          asked.device ? &*asked.device : nullptr, asked.service);
    call.max_session = decision.max_session;
    if (decision.isAllowed()) return;
    recordDenial(operation, call, decision.reason);
    throw denialOf(operations, call, decision);
}

static void parse(const OPERATIONS_T &operations, const OPERATION_T &operation, CALL_T &call,
                  const json &request)
{
    try {
        operation.parse(operations, call.who, call.arguments, request);
    } catch (const OperationFault &fault) {
        recordDenial(operation, call, fault.recorded.empty() ? fault.what() : fault.recorded);
        throw;
    }
}

void runOperation(OPERATIONS_T &operations, const CallPtr &call, const json &request)
{
    try {
        const OPERATION_T &operation = operationOf(request);
        parse(operations, operation, *call, request);
        permit(operations, operation, *call);
        runAllowed(operations, operation, call);
    } catch (const OperationFault &fault) {
        refuse(*call, fault.fault, fault.what());
    } catch (const std::exception &fault) {
        refuse(*call, FAULT::UNAVAILABLE, fault.what());
    }
}

void replacePolicy(OPERATIONS_T &operations, PolicyPtr policy)
{
    operations.policy = std::move(policy);
    endForbiddenSessions(operations);
}

} // namespace backend
