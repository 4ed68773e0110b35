// operators.json, and what follows from it: a file that is accepted decides as the plain evaluator
// does, for each of its operators.
// Under test: backend/policy/policy.cpp
// Under test: backend/policy/policy_file.cpp
// Under test: backend/config_file.cpp(parseConfig|follow|enter|placeOf)
#include "backend/policy/policy.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/plain_policy.h"

#include <algorithm>
#include <array>
#include <stdexcept>

using namespace backend;
using nlohmann::json;

namespace {

constexpr std::size_t OPERATORS_TRIED = 4;
const DEVICE_KEY_T g_device{"PK1", "gw-1"};
const DEVICE_KEY_T g_other{"PK2", "gw-b-2"};
const Labels g_labels{{"site", "berlin"}, {"zone", "z"}};
const std::array<TARGET_T, 6> g_targets{{{&g_device, nullptr, {}},
                                         {&g_device, &g_labels, "ssh_localhost"},
                                         {&g_other, &g_labels, {}},
                                         {&g_other, nullptr, "http"},
                                         {&g_other, nullptr, {"ssh\0x", 5}},
                                         {nullptr, nullptr, {}}}};

PolicyPtr policyFrom(std::string_view text)
{
    try {
        return parsePolicy(text);
    } catch (const std::runtime_error &fault) {
        REQUIRE(*fault.what() != '\0');
        return nullptr;
    }
}

PRINCIPAL_T principal(DOOR door, const std::string &name)
{
    PRINCIPAL_T who;
    who.door = door;
    who.name = name;
    return who;
}

void requireAgreement(const POLICY_T &policy, const json &file, const PRINCIPAL_T &who)
{
    for (const TARGET_T &target : g_targets) {
        for (std::size_t i = 0; i < RIGHT_COUNT; i++) {
            const auto right = static_cast<RIGHT>(i);
            const DECISION_T decision = decide(&policy, who, right, target);
            const DECISION_T plain = plainDecision(file, who, right, target);
            REQUIRE(decision.verdict == plain.verdict && decision.grant == plain.grant);
            REQUIRE(decision.max_session == plain.max_session);
            REQUIRE(decision.isAllowed() == decision.reason.empty());
        }
        REQUIRE(sshAccounts(policy, who, target) == plainSshAccounts(file, who, target));
    }
}

void requireProof(const POLICY_T &policy, const json &person)
{
    const std::string wanted = person["name"];
    for (const json &account : person.value("accounts", json::array()))
        REQUIRE(operatorOfAccount(policy, account.get<std::string>())->operator_name == wanted);
    for (const json &name : person.value("certificates", json::array()))
        REQUIRE(operatorOfCertificate(policy, {name.get<std::string>()})->operator_name == wanted);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const PolicyPtr policy = policyFrom(viewOf(data, size));
    if (!policy) return 0;
    const json file = json::parse(viewOf(data, size));
    REQUIRE(operatorCount(*policy) == file["operators"].size());
    REQUIRE(grantCount(*policy) == file["grants"].size());
    std::size_t tokens = 0;
    for (const json &person : file["operators"]) {
        requireProof(*policy, person);
        tokens += person.value("tokens", json::array()).size();
    }
    REQUIRE(fileTokens(*policy).size() == tokens);
    requireAgreement(*policy, file, principal(DOOR::API, "nobody that can be named \""));
    for (std::size_t i = 0; i < std::min(file["operators"].size(), OPERATORS_TRIED); i++) {
        const std::string name = file["operators"][i]["name"];
        REQUIRE(hasOperator(*policy, name));
        requireAgreement(*policy, file, principal(DOOR::CONTROL_SOCKET, name));
        requireAgreement(*policy, file, principal(DOOR::FORWARDED_PORT, name));
    }
    return 0;
}
