// What the configuration manager of a gateway has to be told to reach this back end.
// Failure  std::runtime_error.
#pragma once

#include "backend/admin/device_commands.h"
#include "backend/devices/device_registry.h"

#include <string>
#include <string_view>

namespace backend {

// Lines "key=value", as the file of a configuration manager has them.
std::string gatewaySettings(const INSTALLATION_T &installation, const GATEWAY_T &gateway,
                            const DEVICE_KEY_T &device, std::string_view secret);

} // namespace backend
