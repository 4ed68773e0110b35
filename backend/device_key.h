// What names a device everywhere in the back end: two products may have devices of one name.
#pragma once

#include <string>

namespace backend {

struct DEVICE_KEY_T {
    std::string product_key;
    std::string device_name;
    auto operator<=>(const DEVICE_KEY_T &) const = default;
};

} // namespace backend
