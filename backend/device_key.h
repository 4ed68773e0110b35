// What names a device everywhere in the back end: two products may have devices of one name.
#pragma once

#include <cstddef>
#include <string>

namespace backend {

constexpr std::size_t DEVICE_NAME_MAX = 36; // bytes of each; a device keeps no more of its own

struct DEVICE_KEY_T {
    std::string product_key;
    std::string device_name;
    auto operator<=>(const DEVICE_KEY_T &) const = default;
};

} // namespace backend
