// The devices that may connect:
// {"devices":[{"product_key":"..","device_name":"..","device_secret":"..",
//              "labels":{"site":".."}, "old_secret":"..",
//              "old_secret_until":"2027-03-01T00:00:00Z"}]}
// The last three are optional; old_secret and old_secret_until come together.
// Limits   product key and device name 1 to 36 bytes (a device keeps no more of its own), secrets 1
//          to 63 (a device cannot use a longer one), labels as in labels.h, file at most 256 MiB.
//          Other members are ignored; a member that stands twice is a fault.
// Cost     about 170 bytes a device and its texts; a look-up compares 17 keys of 100,000.
// Threads  a registry does not change once it is made, so any thread can read it.
// Failure  loadRegistry throws std::runtime_error whose text names the file and the place in it.
#pragma once

#include "backend/device_key.h"
#include "backend/labels.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

constexpr std::size_t SECRET_MAX_BYTES = 63;

// The secret and perhaps an old one, in one buffer: many devices may have both for a while.
class SECRETS_T {
public:
    SECRETS_T() = default;
    // old_until_s: seconds since the epoch; at that second the old one is not valid any more.
    explicit SECRETS_T(std::string_view secret, std::string_view old = {},
                       std::int64_t old_until_s = 0)
        : old_until_s_(old_until_s), size_(static_cast<std::uint8_t>(secret.size()))
    {
        texts_.reserve(secret.size() + old.size());
        texts_.append(secret).append(old);
    }
    [[nodiscard]] std::string_view current() const
    {
        return std::string_view(texts_).substr(0, size_);
    }
    // Empty: none.
    [[nodiscard]] std::string_view old() const
    {
        return std::string_view(texts_).substr(size_);
    }
    [[nodiscard]] std::int64_t oldUntil() const
    {
        return old_until_s_;
    }
    [[nodiscard]] bool hasValidOld(std::int64_t now_s) const
    {
        return !old().empty() && now_s < old_until_s_;
    }

private:
    std::string texts_;
    std::int64_t old_until_s_ = 0;
    std::uint8_t size_ = 0;
};

struct REGISTERED_T {
    DEVICE_KEY_T key;
    SECRETS_T secrets;
    LABELS_T labels;
};

// Whether a device that has proved this secret has proved to be this one.
bool isSecretOf(const REGISTERED_T &device, std::string_view secret, std::int64_t now_s);

class DEVICE_REGISTRY_T {
public:
    DEVICE_REGISTRY_T() = default;
    // In the order of the file. Throws std::runtime_error for a device that stands there twice.
    explicit DEVICE_REGISTRY_T(std::deque<REGISTERED_T> devices);

    [[nodiscard]] std::size_t size() const
    {
        return by_key_.size();
    }
    // The devices in the order of their keys.
    const REGISTERED_T &operator[](std::size_t index) const
    {
        return devices_[by_key_[index]];
    }
    // Null: it is not registered.
    [[nodiscard]] const REGISTERED_T *find(const DEVICE_KEY_T &key) const;
    // The index of the first one behind this key, which need not be registered; size() for none.
    [[nodiscard]] std::size_t indexAfter(const DEVICE_KEY_T &key) const;
    // The one that "PRODUCT_KEY:DEVICE_NAME" names, else all of this name.
    [[nodiscard]] std::vector<const REGISTERED_T *> findMeant(std::string_view name) const;

private:
    std::deque<REGISTERED_T> devices_;
    std::vector<std::uint32_t> by_key_;
    std::vector<std::uint32_t> by_name_;
};

// warnings: what an operator should know about a file that was accepted.
DEVICE_REGISTRY_T loadRegistry(const std::string &path, std::vector<std::string> &warnings);
DEVICE_REGISTRY_T parseRegistry(std::string_view text);

// The device meant by "DEVICE_NAME", or by "PRODUCT_KEY:DEVICE_NAME" where the name alone is not
// unique. Throws std::runtime_error when there is none, or more than one.
const REGISTERED_T &findDeviceByName(const DEVICE_REGISTRY_T &registry, std::string_view name);

} // namespace backend
