#include "tests/support/plain_policy.h"

#include <algorithm>
#include <fnmatch.h>
#include <set>

using namespace backend;
using nlohmann::json;

namespace {

bool hasText(const json &list, const std::string &text)
{
    return std::find(list.begin(), list.end(), json(text)) != list.end();
}

bool matches(const json &pattern, const std::string &text)
{
    return fnmatch(pattern.get<std::string>().c_str(), text.c_str(), 0) == 0;
}

bool anyMatches(const json &patterns, const std::string &text)
{
    for (const json &pattern : patterns)
        if (matches(pattern, text)) return true;
    return false;
}

bool concerns(const json &file, const json &grant, const std::string &name)
{
    for (const json &entry : grant["who"]) {
        if (entry == name) return true;
        if (!file.contains("operator_groups")) continue;
        const json &groups = file["operator_groups"];
        const auto group = groups.find(entry.get<std::string>());
        if (group != groups.end() && hasText(*group, name)) return true;
    }
    return false;
}

bool isInGroup(const json &group, const TARGET_T &target)
{
    if (group.empty()) return true;
    if (target.device == nullptr) return false;
    if (group.contains("products") && !anyMatches(group["products"], target.device->product_key))
        return false;
    if (group.contains("names") && !anyMatches(group["names"], target.device->device_name))
        return false;
    if (!group.contains("labels")) return true;
    for (const auto &[label, pattern] : group["labels"].items()) {
        if (target.labels == nullptr) return false;
        const auto found = target.labels->find(label);
        if (found == target.labels->end()) return false;
        if (!matches(pattern, std::string(found->second))) return false;
    }
    return true;
}

bool hasDevice(const json &file, const json &grant, const TARGET_T &target)
{
    for (const json &entry : grant["devices"]) {
        if (entry == "*") return true;
        if (isInGroup(file["device_groups"][entry.get<std::string>()], target)) return true;
    }
    return false;
}

// A number and its unit, as parsePolicy takes them.
std::chrono::seconds secondsOf(const std::string &text)
{
    const long number = std::stol(text);
    switch (text.back()) {
    case 'd':
        return std::chrono::hours{24 * number};
    case 'h':
        return std::chrono::hours{number};
    case 'm':
        return std::chrono::minutes{number};
    default:
        return std::chrono::seconds{number};
    }
}

std::vector<json> coveringGrants(const json &file, const std::string &name, const TARGET_T &target)
{
    std::vector<json> grants;
    const std::string service(target.service);
    if (service.find('\0') != std::string::npos) return grants;
    for (const json &grant : file["grants"]) {
        if (!concerns(file, grant, name) || !hasDevice(file, grant, target)) continue;
        if (service.empty() || anyMatches(grant["services"], service)) grants.push_back(grant);
    }
    return grants;
}

} // namespace

DECISION_T plainDecision(const json &file, const PRINCIPAL_T &who, RIGHT right,
                         const TARGET_T &target)
{
    if (who.door == DOOR::FORWARDED_PORT && right != RIGHT::CONNECT)
        return {VERDICT::DENIED, {}, {}, {}};
    DECISION_T decision;
    const std::vector<json> covering = coveringGrants(file, who.name, target);
    if (!covering.empty() || target.device == nullptr) decision.verdict = VERDICT::DENIED;
    for (const json &grant : covering) {
        if (!hasText(grant["verbs"], rightName(right))) continue;
        if (right == RIGHT::CONNECT && grant.value("record", false))
            return {VERDICT::DENIED, {}, grant["name"], {}};
    }
    for (const json &grant : covering) {
        if (!hasText(grant["verbs"], rightName(right))) continue;
        decision.verdict = VERDICT::ALLOWED;
        if (decision.grant.empty()) decision.grant = grant["name"];
        if (!grant.contains("max_session")) continue;
        const auto longest = secondsOf(grant["max_session"]);
        decision.max_session = std::min(decision.max_session.value_or(longest), longest);
    }
    return decision;
}

std::vector<std::string> plainSshAccounts(const json &file, const PRINCIPAL_T &who,
                                          const TARGET_T &target)
{
    std::vector<std::string> accounts;
    if (!plainDecision(file, who, RIGHT::CONNECT, target).isAllowed()) return accounts;
    std::set<std::string> known;
    for (const json &grant : coveringGrants(file, who.name, target)) {
        if (!hasText(grant["verbs"], "connect")) continue;
        for (const json &account : grant.value("ssh_accounts", json::array()))
            if (known.insert(account).second) accounts.push_back(account);
    }
    return accounts;
}
