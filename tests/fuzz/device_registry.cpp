// The file of devices: whatever is accepted can be found again, within the limits, in order.
// Under test: backend/devices/registry_reader.cpp
// Under test: backend/devices/device_registry.cpp(parse|find|index|DeviceRegistry|refuse)
// Under test: backend/utc_time.cpp
#include "backend/devices/device_registry.h"
#include "backend/utc_time.h"
#include "tests/fuzz/fuzz.h"

#include <stdexcept>
#include <string>

using namespace backend;

static bool isWithin(std::string_view text, std::size_t limit)
{
    return !text.empty() && text.size() <= limit;
}

static void requireSound(const DeviceRegistry &registry)
{
    for (std::size_t i = 0; i < registry.size(); i++) {
        const REGISTERED_T &device = registry[i];
        REQUIRE(i == 0 || registry[i - 1].key < device.key);
        REQUIRE(registry.find(device.key) == &device);
        REQUIRE(registry.indexAfter(device.key) == i + 1);
        REQUIRE(isWithin(device.key.product_key, DEVICE_NAME_MAX));
        REQUIRE(isWithin(device.key.device_name, DEVICE_NAME_MAX));
        REQUIRE(isWithin(device.secrets.current(), SECRET_MAX_BYTES));
        REQUIRE(!registry.findMeant(device.key.device_name).empty());
        REQUIRE(device.labels.size() <= DEVICE_LABELS_MAX);
        for (const auto &[name, value] : device.labels) {
            REQUIRE(device.labels.find(name)->second == value);
            REQUIRE(!name.empty() && name.size() <= LABEL_NAME_MAX);
            REQUIRE(value.size() <= LABEL_VALUE_MAX && value.data()[value.size()] == '\0');
        }
        if (device.secrets.old().empty()) continue;
        REQUIRE(isWithin(device.secrets.old(), SECRET_MAX_BYTES));
        REQUIRE(parseUtcTime(utcTimeText(device.secrets.oldUntil())) == device.secrets.oldUntil());
    }
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    try {
        requireSound(parseRegistry(viewOf(data, size)));
    } catch (const std::runtime_error &fault) {
        REQUIRE(*fault.what() != '\0');
    }
    return 0;
}
