#include "backend/policy/policy.h"

#include "backend/policy/policy_data.h"
#include "backend/policy/token_text.h"

#include <algorithm>
#include <array>
#include <fnmatch.h>
#include <openssl/crypto.h>

namespace backend {

namespace {

struct RIGHT_NAME_T {
    RIGHT right;
    const char *name;
    const char *towards; // between the right and its target, in a sentence
};

constexpr auto RIGHTS = std::to_array<RIGHT_NAME_T>({
    {RIGHT::LIST, "list", " of "},
    {RIGHT::CONNECT, "connect", " to "},
    {RIGHT::VERIFY, "verify", " on "},
    {RIGHT::CLOSE, "close", " on "},
    {RIGHT::OPEN, "open", " on "},
    {RIGHT::MANAGE, "manage", " of "},
});
static_assert(RIGHTS.size() == RIGHT_COUNT);

// What the grants of one operator say about one request.
struct FINDINGS_T {
    bool is_covered = false; // by some grant, with whatever right
    const GRANT_T *allowing = nullptr;
    const GRANT_T *recording = nullptr;
    std::optional<std::chrono::seconds> max_session;
};

} // namespace

const char *rightName(RIGHT right)
{
    return RIGHTS.at(static_cast<std::size_t>(right)).name;
}

std::optional<RIGHT> findRight(std::string_view name)
{
    for (const RIGHT_NAME_T &row : RIGHTS)
        if (row.name == name) return row.right;
    return std::nullopt;
}

// ---- what a grant covers

PATTERN_T makePattern(std::string text)
{
    const std::size_t special = text.find_first_of("*?[\\");
    if (special == std::string::npos) return {PATTERN_T::KIND::TEXT, std::move(text)};
    if (text[special] != '*' || special + 1 != text.size())
        return {PATTERN_T::KIND::SHELL, std::move(text)};
    text.pop_back();
    if (text.empty()) return {PATTERN_T::KIND::EVERY, {}};
    return {PATTERN_T::KIND::PREFIX, std::move(text)};
}

bool isMatch(const PATTERN_T &pattern, const std::string &text)
{
    switch (pattern.kind) {
    case PATTERN_T::KIND::EVERY:
        return true;
    case PATTERN_T::KIND::TEXT:
        return text == pattern.text;
    case PATTERN_T::KIND::PREFIX:
        return text.starts_with(pattern.text);
    case PATTERN_T::KIND::SHELL:
        break;
    }
    return fnmatch(pattern.text.c_str(), text.c_str(), 0) == 0;
}

static bool isAnyMatch(const std::vector<PATTERN_T> &patterns, const std::string &text)
{
    return std::any_of(patterns.begin(), patterns.end(),
                       [&text](const PATTERN_T &pattern) { return isMatch(pattern, text); });
}

static bool hasLabels(const DEVICE_GROUP_T &group, const Labels *labels)
{
    return std::all_of(group.labels.begin(), group.labels.end(), [labels](const auto &wanted) {
        if (labels == nullptr) return false;
        const auto found = labels->find(wanted.first);
        return found != labels->end() && isMatch(wanted.second, std::string(found->second));
    });
}

static bool isInGroup(const DEVICE_GROUP_T &group, const TARGET_T &target)
{
    return (group.products.empty() || isAnyMatch(group.products, target.device->product_key)) &&
           (group.names.empty() || isAnyMatch(group.names, target.device->device_name)) &&
           hasLabels(group, target.labels);
}

static bool coversDevice(const POLICY_T &policy, const GRANT_T &grant, const TARGET_T &target)
{
    if (grant.covers_every_device) return true;
    if (target.device == nullptr) return false;
    return std::any_of(grant.device_groups.begin(), grant.device_groups.end(),
                       [&policy, &target](std::uint32_t group) {
                           return isInGroup(policy.device_groups[group], target);
                       });
}

// service: of the target.
static bool covers(const POLICY_T &policy, const GRANT_T &grant, const TARGET_T &target,
                   const std::string &service)
{
    return coversDevice(policy, grant, target) &&
           (service.empty() || isAnyMatch(grant.services, service));
}

static void add(FINDINGS_T &findings, const GRANT_T &grant)
{
    if (findings.allowing == nullptr) findings.allowing = &grant;
    if (findings.recording == nullptr && grant.is_recorded) findings.recording = &grant;
    if (grant.max_session && (!findings.max_session || *grant.max_session < *findings.max_session))
        findings.max_session = grant.max_session;
}

static FINDINGS_T lookUp(const POLICY_T &policy, const OPERATOR_T &person, RIGHT right,
                         const TARGET_T &target)
{
    FINDINGS_T findings;
    const std::string service(target.service);
    // fnmatch would see what is in front of it only.
    if (service.find('\0') != std::string::npos) return findings;
    for (const std::uint32_t index : person.grants) {
        const GRANT_T &grant = policy.grants[index];
        const bool has_right = (grant.rights & rightBit(right)) != 0;
        if (!has_right && findings.is_covered) continue;
        if (!covers(policy, grant, target, service)) continue;
        findings.is_covered = true;
        if (has_right) add(findings, grant);
    }
    return findings;
}

static const OPERATOR_T *findOperator(const POLICY_T &policy, std::string_view name)
{
    const auto found = policy.names.find(name);
    return found == policy.names.end() ? nullptr : &policy.operators[found->second];
}

// ---- the decision

static std::string targetText(const TARGET_T &target)
{
    if (target.device == nullptr) return "every device";
    std::string text = target.device->device_name;
    if (!target.service.empty()) text.append("/").append(target.service);
    return text;
}

static DECISION_T refuse(RIGHT right, const TARGET_T &target, const FINDINGS_T &findings)
{
    const RIGHT_NAME_T &row = RIGHTS.at(static_cast<std::size_t>(right));
    // That there are devices at all is no secret.
    const bool is_known = findings.is_covered || target.device == nullptr;
    return {is_known ? VERDICT::DENIED : VERDICT::UNKNOWN,
            std::string("no grant allows ") + row.name + row.towards + targetText(target),
            {},
            {}};
}

static DECISION_T decideByGrants(const POLICY_T &policy, const PRINCIPAL_T &who, RIGHT right,
                                 const TARGET_T &target)
{
    const OPERATOR_T *person = findOperator(policy, who.name);
    if (person == nullptr) {
        return {target.device == nullptr ? VERDICT::DENIED : VERDICT::UNKNOWN,
                "no operator is named \"" + who.name + "\"",
                {},
                {}};
    }
    const FINDINGS_T findings = lookUp(policy, *person, right, target);
    if (findings.allowing == nullptr) return refuse(right, target, findings);
    if (right == RIGHT::CONNECT && findings.recording != nullptr) {
        return {VERDICT::DENIED,
                targetText(target) + " is recorded: it is reached through the console only",
                findings.recording->name,
                {}};
    }
    return {VERDICT::ALLOWED, {}, findings.allowing->name, findings.max_session};
}

DECISION_T decide(const POLICY_T *policy, const PRINCIPAL_T &who, RIGHT right,
                  const TARGET_T &target)
{
    if (who.door == DOOR::FORWARDED_PORT && right != RIGHT::CONNECT)
        return {VERDICT::DENIED, "a forwarded port is for connecting only", {}, {}};
    if (policy == nullptr) return {VERDICT::ALLOWED, {}, {}, {}};
    return decideByGrants(*policy, who, right, target);
}

std::vector<std::string> sshAccounts(const POLICY_T &policy, const PRINCIPAL_T &who,
                                     const TARGET_T &target)
{
    std::vector<std::string> accounts;
    const OPERATOR_T *person = findOperator(policy, who.name);
    if (person == nullptr || !decide(&policy, who, RIGHT::CONNECT, target).isAllowed())
        return accounts;
    const std::string service(target.service);
    for (const std::uint32_t index : person->grants) {
        const GRANT_T &grant = policy.grants[index];
        if ((grant.rights & rightBit(RIGHT::CONNECT)) == 0) continue;
        if (!covers(policy, grant, target, service)) continue;
        for (const std::string &account : grant.ssh_accounts)
            if (std::find(accounts.begin(), accounts.end(), account) == accounts.end())
                accounts.push_back(account);
    }
    return accounts;
}

// ---- who it is

std::optional<PROVED_T> operatorOfAccount(const POLICY_T &policy, std::string_view account)
{
    const auto found = policy.accounts.find(account);
    if (found == policy.accounts.end()) return std::nullopt;
    return PROVED_T{policy.operators[found->second].name, {}};
}

static std::string fileTokenId(const TOKEN_T &token)
{
    constexpr std::size_t DIGITS = 16;
    return std::string(FILE_TOKEN) + hexText(token.hash).substr(0, DIGITS);
}

std::optional<PROVED_T> operatorOfToken(const POLICY_T &policy, const SHA256_T &hash,
                                        std::int64_t now)
{
    // All of them are compared, so that the time does not tell where one stands.
    const TOKEN_T *found = nullptr;
    for (const TOKEN_T &token : policy.tokens)
        if (CRYPTO_memcmp(token.hash.data(), hash.data(), hash.size()) == 0) found = &token;
    if (found == nullptr || now >= found->expires) return std::nullopt;
    return PROVED_T{policy.operators[found->owner].name, fileTokenId(*found)};
}

std::optional<PROVED_T> operatorOfCertificate(const POLICY_T &policy,
                                              const std::vector<std::string> &names)
{
    std::optional<std::uint32_t> owner;
    for (const std::string &name : names) {
        const auto found = policy.certificates.find(name);
        if (found == policy.certificates.end()) continue;
        if (owner && *owner != found->second) return std::nullopt; // which of the two is it?
        owner = found->second;
    }
    if (!owner) return std::nullopt;
    return PROVED_T{policy.operators[*owner].name, {}};
}

bool hasOperator(const POLICY_T &policy, std::string_view name)
{
    return findOperator(policy, name) != nullptr;
}

std::vector<FILE_TOKEN_T> fileTokens(const POLICY_T &policy)
{
    std::vector<FILE_TOKEN_T> tokens;
    tokens.reserve(policy.tokens.size());
    for (const TOKEN_T &token : policy.tokens)
        tokens.push_back(
            {fileTokenId(token), policy.operators[token.owner].name, token.label, token.expires});
    return tokens;
}

std::size_t operatorCount(const POLICY_T &policy)
{
    return policy.operators.size();
}

std::size_t grantCount(const POLICY_T &policy)
{
    return policy.grants.size();
}

} // namespace backend
