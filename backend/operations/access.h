// The policy's decision about what an operation was asked for.
// Threads  the thread of the io_context.
#pragma once

#include "backend/operations/operations.h"

#include <string>
#include <string_view>

namespace backend {

// device: null for every device. service: empty for the device as such.
DECISION_T decideFor(const OPERATIONS_T &operations, const PRINCIPAL_T &who, RIGHT right,
                     const DEVICE_KEY_T *device, std::string_view service);

// The device meant by the name an operator gives, among those that he may know of. Throws
// OperationFault.
DEVICE_KEY_T findDeviceFor(const OPERATIONS_T &operations, const PRINCIPAL_T &who,
                           std::string_view name);

// Whether he may do what concerns every device, and the back end itself.
bool managesAll(const OPERATIONS_T &operations, const PRINCIPAL_T &who);

// Throws OperationFault unless the store has this token and he may revoke it: it is his own, or he
// manages everything.
void requireRevocable(const OPERATIONS_T &operations, const PRINCIPAL_T &who,
                      const std::string &id);

// What an operator is told of something that is not there, or that he must not know of.
std::string noSuchDevice(std::string_view name);
std::string noSuchService(const DEVICE_KEY_T &device, std::string_view service);
std::string noSuchSession(std::string_view number);

} // namespace backend
