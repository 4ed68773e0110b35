// The file of devices in the hands of an editor: its text with order and unknown members, and what
// the back end would take from it.
// Failure  std::runtime_error, whose text names the place.
#pragma once

#include "backend/admin/device_commands.h"
#include "backend/admin/json_text.h"
#include "backend/devices/device_registry.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace backend {

struct DEVICE_FILE_T {
    JSON_TEXT_T json;
    DeviceRegistry registry;
    std::map<DEVICE_KEY_T, std::size_t> places; // in the array "devices"

    [[nodiscard]] nlohmann::ordered_json &list()
    {
        return json.root["devices"];
    }
    [[nodiscard]] nlohmann::ordered_json &entryOf(const REGISTERED_T &device)
    {
        return list()[places.at(device.key)];
    }
};

DEVICE_FILE_T parseDeviceFile(const std::string &text);

// Changes the file under its lock. change: false for nothing to write.
void editDeviceFile(const std::string &path, const std::function<bool(DEVICE_FILE_T &)> &change);

// In the order of the file and without doubles. Throws where a name means no device or several,
// and where none is meant at all.
std::vector<const REGISTERED_T *> findMeant(const DEVICE_FILE_T &file, const MEANT_T &meant);

// All devices that have these labels, in the order of the file.
std::vector<const REGISTERED_T *> findLabelled(const DEVICE_FILE_T &file,
                                               const std::vector<std::string> &where);

// "NAME=VALUE", or std::invalid_argument.
LABEL_CHANGE_T parseLabel(const std::string &text);

// "PRODUCT:NAME".
std::string fullName(const DEVICE_KEY_T &key);

} // namespace backend
