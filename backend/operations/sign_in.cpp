#include "backend/operations/sign_in.h"

#include "backend/operations/operations.h"
#include "backend/policy/token_text.h"

#include <utility>

namespace backend {

static std::optional<FILE_TOKEN_T> findFileToken(const POLICY_T &policy, std::string_view id)
{
    for (const FILE_TOKEN_T &token : fileTokens(policy))
        if (token.id == id) return token;
    return std::nullopt;
}

static bool isInFile(const POLICY_T &policy, std::string_view operator_name, std::string_view id)
{
    const auto token = findFileToken(policy, id);
    return token && token->operator_name == operator_name;
}

// A token made with one of the file goes with it.
static bool isRooted(const OPERATIONS_T &operations, const TOKEN_RECORD_T &token)
{
    const TOKEN_RECORD_T *root = &token;
    while (root != nullptr && !root->made_with.empty()) {
        if (root->made_with.starts_with(FILE_TOKEN))
            return isInFile(*operations.policy, root->operator_name, root->made_with);
        root = findTokenById(operations.tokens, root->made_with);
    }
    return root != nullptr;
}

static std::optional<PROVED_T> operatorBehind(const OPERATIONS_T &operations,
                                              std::string_view token)
{
    const auto hash = hashToken(token);
    if (!hash) return std::nullopt;
    const std::int64_t now = wallClockMs() / 1000;
    auto proved = operatorOfToken(*operations.policy, *hash, now);
    const TOKEN_RECORD_T *record = findToken(operations.tokens, *hash, now);
    if (proved || record == nullptr || !hasOperator(*operations.policy, record->operator_name) ||
        !isRooted(operations, *record))
        return proved;
    return PROVED_T{record->operator_name, record->id};
}

static std::string labelOf(const OPERATIONS_T &operations, const std::string &token)
{
    if (const auto of_file = findFileToken(*operations.policy, token)) return of_file->label;
    const TOKEN_RECORD_T *record = findTokenById(operations.tokens, token);
    return record == nullptr ? token : record->label;
}

static std::int64_t expiryOf(const OPERATIONS_T &operations, const PRINCIPAL_T &who)
{
    const TOKEN_RECORD_T *record = findTokenById(operations.tokens, who.token);
    if (record != nullptr) return record->expires;
    const auto of_file = findFileToken(*operations.policy, who.token);
    return of_file ? of_file->expires : 0;
}

std::optional<PRINCIPAL_T> signIn(const OPERATIONS_T &operations, const CREDENTIALS_T &credentials)
{
    if (!operations.policy) return std::nullopt;
    const auto proved =
        credentials.token.empty()
            ? operatorOfCertificate(*operations.policy, credentials.certificate_names)
            : operatorBehind(operations, credentials.token);
    if (!proved) return std::nullopt;
    PRINCIPAL_T who;
    who.door = DOOR::API;
    who.name = proved->operator_name;
    who.token = proved->token;
    if (who.token.empty()) who.certificate_names = credentials.certificate_names;
    who.expires = expiryOf(operations, who);
    who.from = credentials.from;
    who.from += who.token.empty() ? ", certificate" : ", token " + labelOf(operations, who.token);
    return who;
}

PRINCIPAL_T accountPrincipal(const OPERATIONS_T &operations, DOOR door, const std::string &account,
                             const std::string &from)
{
    PRINCIPAL_T who;
    who.door = door;
    who.name = account;
    who.account = account;
    who.from = from;
    if (!operations.policy) return who;
    const auto proved = operatorOfAccount(*operations.policy, account);
    who.is_operator = proved.has_value();
    if (proved && proved->operator_name != account) {
        who.name = proved->operator_name;
        who.from += ", account " + account;
    }
    return who;
}

bool isStillProved(const OPERATIONS_T &operations, const PRINCIPAL_T &who)
{
    if (!operations.policy) return true;
    if (!who.is_operator || !hasOperator(*operations.policy, who.name)) return false;
    if (who.token.empty()) {
        const auto proved = who.account.empty()
                                ? operatorOfCertificate(*operations.policy, who.certificate_names)
                                : operatorOfAccount(*operations.policy, who.account);
        return proved && proved->operator_name == who.name;
    }
    if (who.token.starts_with(FILE_TOKEN)) return isInFile(*operations.policy, who.name, who.token);
    const TOKEN_RECORD_T *record = findTokenById(operations.tokens, who.token);
    if (record != nullptr) return isRooted(operations, *record);
    return who.expires <= wallClockMs() / 1000; // one that has run out is not kept for long
}

} // namespace backend
