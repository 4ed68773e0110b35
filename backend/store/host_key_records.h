// The SSH host keys that devices have shown, by service. In memory for the io thread, and in the
// store's table `host_key`.
// Threads  the io thread.
// Limits   HOST_KEYS_MAX for a service, HOST_KEY_SERVICES_MAX services of a device. Those of a
//          device that is registered no more stay: it may come back, and must then be the same.
#pragma once

#include "backend/device_key.h"
#include "backend/store/store.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace backend {

constexpr std::size_t HOST_KEYS_MAX = 8;
constexpr std::size_t HOST_KEY_SERVICES_MAX = 32;

struct HOST_KEY_T {
    std::string type;
    std::string key; // base64
    std::int64_t seen_ms = 0;
    std::string who; // the operator to whom the device has shown it first
};

struct HOST_KEY_PLACE_T {
    std::string product;
    std::string device;
    std::string service;
    auto operator<=>(const HOST_KEY_PLACE_T &) const = default;
};

struct HOST_KEY_RECORDS_T {
    STORE_T *store = nullptr; // borrowed; null: none can be kept
    std::map<HOST_KEY_PLACE_T, std::vector<HOST_KEY_T>> records;
};

// Throws std::runtime_error.
HOST_KEY_RECORDS_T loadHostKeys(STORE_T *store);

// Null: none.
const std::vector<HOST_KEY_T> *findHostKeys(const HOST_KEY_RECORDS_T &keys,
                                            const HOST_KEY_PLACE_T &place);

// Whether the device has as many services with keys as it may have.
bool hasMostServices(const HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place);

// Both count at once. What the store could not take away from its disk is there again after a
// restart, and the other way round.
void addHostKeys(HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place,
                 std::vector<HOST_KEY_T> shown, StoreCallback answered);
void forgetHostKeys(HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place,
                    StoreCallback answered);

} // namespace backend
