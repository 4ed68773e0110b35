#include "backend/operations/access.h"

#include "backend/operations/fault.h"

namespace backend {

DECISION_T decideFor(const OPERATIONS_T &operations, const PRINCIPAL_T &who, RIGHT right,
                     const DEVICE_KEY_T *device, std::string_view service)
{
    if (operations.policy && !who.is_operator)
        return {VERDICT::UNKNOWN, "no operator has the account " + who.name, {}, {}};
    return decide(
        operations.policy.get(), who, right,
        {device, device == nullptr ? nullptr : labelsOf(operations.directory, *device), service});
}

DEVICE_KEY_T findDeviceFor(const OPERATIONS_T &operations, const PRINCIPAL_T &who,
                           std::string_view name)
{
    const DEVICE_KEY_T *found = nullptr;
    std::string hidden;
    const std::vector<DEVICE_KEY_T> meant = findDevices(operations.directory, name);
    for (const DEVICE_KEY_T &device : meant) {
        const DECISION_T decision = decideFor(operations, who, RIGHT::LIST, &device, {});
        if (decision.verdict == VERDICT::UNKNOWN) {
            hidden = who.is_operator
                         ? "no grant covers " + device.product_key + ":" + device.device_name
                         : decision.reason;
            continue;
        }
        if (found != nullptr)
            throw OperationFault(FAULT::BAD_REQUEST, "several devices are named " +
                                                         std::string(name) +
                                                         ": write PRODUCT_KEY:DEVICE_NAME");
        found = &device;
    }
    if (found == nullptr) throw OperationFault(FAULT::NOT_FOUND, noSuchDevice(name), hidden);
    return *found;
}

bool managesAll(const OPERATIONS_T &operations, const PRINCIPAL_T &who)
{
    return decideFor(operations, who, RIGHT::MANAGE, nullptr, {}).isAllowed();
}

void requireRevocable(const OPERATIONS_T &operations, const PRINCIPAL_T &who, const std::string &id)
{
    if (id.starts_with(FILE_TOKEN))
        throw OperationFault(FAULT::CONFLICT,
                             "it stands in operators.json: take it out there and reload");
    const TOKEN_RECORD_T *token = findTokenById(operations.tokens, id);
    const std::string unknown = "no token has the id " + id;
    if (token == nullptr) throw OperationFault(FAULT::NOT_FOUND, unknown);
    if ((who.is_operator && token->operator_name == who.name) || managesAll(operations, who))
        return;
    throw OperationFault(FAULT::NOT_FOUND, unknown,
                         "the token " + id + " is one of " + token->operator_name);
}

std::string noSuchDevice(std::string_view name)
{
    return "no device is named " + std::string(name);
}

std::string noSuchService(const DEVICE_KEY_T &device, std::string_view service)
{
    return device.device_name + " does not offer " + std::string(service);
}

std::string noSuchSession(std::string_view number)
{
    return "no session has the number " + std::string(number);
}

} // namespace backend
