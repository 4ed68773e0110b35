// The devices that may connect:
// {"devices":[{"product_key":"..","device_name":"..","device_secret":".."}]}.
// Limits   product key and device name 1 to 36 bytes (a device keeps no more of its own), secret 1
//          to 63 (a device cannot use a longer one), file at most 16 MiB. Other members of an
//          entry are ignored.
// Failure  loadRegistry throws std::runtime_error whose text names the file and the place in it.
#pragma once

#include "backend/device_key.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace backend {

using DEVICE_REGISTRY_T = std::map<DEVICE_KEY_T, std::string>; // the secret of each device

// warnings: what an operator should know about a file that was accepted.
DEVICE_REGISTRY_T loadRegistry(const std::string &path, std::vector<std::string> &warnings);
DEVICE_REGISTRY_T parseRegistry(std::string_view text);

// The device meant by "DEVICE_NAME", or by "PRODUCT_KEY:DEVICE_NAME" where the name alone is not
// unique. Throws std::runtime_error when there is none, or more than one.
DEVICE_KEY_T findDeviceByName(const DEVICE_REGISTRY_T &registry, std::string_view name);

} // namespace backend
