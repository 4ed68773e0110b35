#include "backend/observe/metrics.h"
#include "backend/observe/uuid.h"
#include "backend/operations/access.h"
#include "backend/operations/sign_in.h"
#include "backend/operations/verbs.h"
#include "backend/policy/token_text.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::int64_t DAY_S = 86400;

static std::int64_t nowSeconds()
{
    return wallClockMs() / 1000;
}

void showOperator(OPERATIONS_T &operations, const CallPtr &call)
{
    const PRINCIPAL_T &who = call->who;
    json answer = {{"ok", true},
                   {"operator", nullptr},
                   {"from", who.from},
                   {"policy", operations.policy != nullptr}};
    if (who.is_operator) answer["operator"] = who.name;
    if (who.expires != 0) answer["expires"] = who.expires;
    call->answer(answer, true);
}

void answerQuestion(OPERATIONS_T &operations, const CallPtr &call)
{
    const ARGUMENTS_T &asked = call->arguments;
    const DECISION_T decision =
        decideFor(operations, call->who, asked.right, &*asked.device, asked.service);
    json answer = {{"ok", true}, {"allowed", decision.isAllowed()}, {"grant", decision.grant}};
    if (decision.verdict == VERDICT::UNKNOWN)
        answer["reason"] = noSuchService(*asked.device, asked.service);
    else if (!decision.isAllowed())
        answer["reason"] = decision.reason;
    if (decision.max_session) answer["max_session"] = decision.max_session->count();
    call->answer(answer, true);
}

// ---- tokens

void listTokens(OPERATIONS_T &operations, const CallPtr &call)
{
    const bool sees_all = managesAll(operations, call->who);
    const auto is_shown = [&](const std::string &name) {
        return sees_all || (call->who.is_operator && name == call->who.name);
    };
    json tokens = json::array();
    if (operations.policy) {
        for (const FILE_TOKEN_T &token : fileTokens(*operations.policy)) {
            if (!is_shown(token.operator_name)) continue;
            tokens.push_back({{"id", token.id},
                              {"operator", token.operator_name},
                              {"label", token.label},
                              {"made", nullptr},
                              {"expires", token.expires}});
        }
    }
    for (const TOKEN_RECORD_T &token : operations.tokens.records) {
        if (!is_shown(token.operator_name)) continue;
        tokens.push_back({{"id", token.id},
                          {"operator", token.operator_name},
                          {"label", token.label},
                          {"made", token.made_ms / 1000},
                          {"expires", token.expires}});
    }
    call->answer({{"ok", true}, {"tokens", std::move(tokens)}}, true);
}

// A stolen token must not give its thief a longer life than it has itself.
static std::int64_t expiryOf(const CALL_T &call)
{
    const std::int64_t wanted = nowSeconds() + call.arguments.days * DAY_S;
    return call.who.expires == 0 ? wanted : std::min(wanted, call.who.expires);
}

void makeOwnToken(OPERATIONS_T &operations, const CallPtr &call)
{
    if (!operations.policy || !call->who.is_operator)
        throw OperationFault(FAULT::CONFLICT, "tokens are for operators of operators.json");
    const std::string reason = whyNoMore(operations.tokens, call->who.name, nowSeconds());
    if (!reason.empty()) throw OperationFault(FAULT::CONFLICT, reason);
    const std::string token = makeToken();
    const TOKEN_RECORD_T record{call->arguments.id, call->who.name, call->arguments.label,
                                *hashToken(token),  wallClockMs(),  expiryOf(*call),
                                call->who.token};
    addToken(operations.tokens, record, [call, token, record](bool is_kept) {
        if (!is_kept) return refuse(*call, FAULT::UNAVAILABLE, "the store cannot be written");
        call->answer({{"ok", true},
                      {"token", token},
                      {"id", record.id},
                      {"label", record.label},
                      {"expires", record.expires}},
                     true);
    });
}

void revokeOwnToken(OPERATIONS_T &operations, const CallPtr &call)
{
    const std::string &id = call->arguments.id;
    requireRevocable(operations, call->who, id); // it may have gone while that was recorded
    const auto gone = std::make_shared<std::vector<std::string>>();
    *gone = revokeToken(operations.tokens, id, [call, gone](bool is_durable) {
        if (!is_durable)
            return refuse(*call, FAULT::UNAVAILABLE,
                          "it is revoked until the back end starts again: the store cannot be "
                          "written");
        call->answer({{"ok", true}, {"revoked", *gone}}, true);
    });
    endForbiddenSessions(operations);
}

// ---- the back end itself

void showStatus(OPERATIONS_T & /*operations*/, const CallPtr &call)
{
    json metrics = json::array();
    for (std::size_t i = 0; i < metricCount(); i++) {
        const METRIC_VALUE_T metric = readMetric(i);
        metrics.push_back({{"name", metric.name}, {"help", metric.help}, {"value", metric.value}});
    }
    call->answer({{"ok", true}, {"version", RA_VERSION}, {"metrics", std::move(metrics)}}, true);
}

void reloadFiles(OPERATIONS_T &operations, const CallPtr &call)
{
    if (!operations.reload) throw OperationFault(FAULT::NOT_BUILT, "nothing can be read again");
    operations.reload([call](const std::string &failed) {
        if (!failed.empty()) return refuse(*call, FAULT::CONFLICT, "not read: " + failed);
        call->answer({{"ok", true}}, true);
    });
}

} // namespace backend
