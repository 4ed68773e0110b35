#include "backend/admin/device_file.h"

#include "backend/admin/file_edit.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include <fnmatch.h>

namespace backend {

DEVICE_FILE_T parseDeviceFile(const std::string &text)
{
    DEVICE_FILE_T file;
    file.registry = parseRegistry(text); // names what is wrong
    file.json = parseJsonText(text);
    const auto &list = file.list();
    for (std::size_t i = 0; i < list.size(); i++) {
        file.places.emplace(DEVICE_KEY_T{list[i].at("product_key").get<std::string>(),
                                         list[i].at("device_name").get<std::string>()},
                            i);
    }
    return file;
}

void editDeviceFile(const std::string &path, const std::function<bool(DEVICE_FILE_T &)> &change)
{
    editFile(path, [&](const std::string &before) {
        DEVICE_FILE_T file;
        try {
            file = parseDeviceFile(before);
        } catch (const std::runtime_error &fault) {
            throw std::runtime_error(path + ": " + fault.what());
        }
        if (!change(file)) return before;
        std::string after = jsonText(file.json);
        try {
            (void)parseRegistry(after);
        } catch (const std::runtime_error &fault) {
            throw std::runtime_error(path + " would not be usable: " + fault.what());
        }
        return after;
    });
}

static bool hasLabels(const REGISTERED_T &device, const std::vector<LABEL_CHANGE_T> &wanted)
{
    return std::all_of(wanted.begin(), wanted.end(), [&device](const LABEL_CHANGE_T &label) {
        const auto found = device.labels.find(label.first);
        return found != device.labels.end() &&
               fnmatch(label.second.c_str(), found->second.data(), 0) == 0;
    });
}

std::vector<const REGISTERED_T *> findLabelled(const DEVICE_FILE_T &file,
                                               const std::vector<std::string> &where)
{
    std::vector<LABEL_CHANGE_T> wanted;
    wanted.reserve(where.size());
    for (const std::string &text : where)
        wanted.push_back(parseLabel(text));
    std::vector<const REGISTERED_T *> found(file.places.size());
    for (std::size_t i = 0; i < file.registry.size(); i++) {
        const REGISTERED_T &device = file.registry[i];
        if (hasLabels(device, wanted)) found[file.places.at(device.key)] = &device;
    }
    std::erase(found, nullptr);
    return found;
}

std::vector<const REGISTERED_T *> findMeant(const DEVICE_FILE_T &file, const MEANT_T &meant)
{
    if (meant.names.empty() == meant.where.empty())
        throw std::invalid_argument("name the devices, or say which with --where");
    if (!meant.where.empty()) {
        auto found = findLabelled(file, meant.where);
        if (found.empty()) throw std::runtime_error("no device has these labels");
        return found;
    }
    std::vector<const REGISTERED_T *> found;
    for (const std::string &name : meant.names) {
        const REGISTERED_T &device = findDeviceByName(file.registry, name);
        if (std::find(found.begin(), found.end(), &device) == found.end()) found.push_back(&device);
    }
    return found;
}

LABEL_CHANGE_T parseLabel(const std::string &text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        throw std::invalid_argument("\"" + text + "\" is no LABEL=VALUE");
    return {text.substr(0, equals), text.substr(equals + 1)};
}

std::string fullName(const DEVICE_KEY_T &key)
{
    return key.product_key + ":" + key.device_name;
}

} // namespace backend
