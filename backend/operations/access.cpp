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
