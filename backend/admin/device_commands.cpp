#include "backend/admin/device_commands.h"

#include "backend/admin/device_file.h"
#include "backend/admin/duration.h"
#include "backend/admin/file_edit.h"
#include "backend/admin/gateway_settings.h"
#include "backend/admin/reload_request.h"
#include "backend/policy/token_text.h"
#include "backend/utc_time.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include <fnmatch.h>

namespace backend {

using nlohmann::ordered_json;
using Devices = std::vector<const REGISTERED_T *>;

static const std::string &fileOf(const INSTALLATION_T &installation)
{
    if (installation.devices.empty())
        throw std::invalid_argument("--devices FILE or --config FILE is required");
    return installation.devices;
}

static DEVICE_FILE_T readDeviceFile(const INSTALLATION_T &installation)
{
    const std::string &path = fileOf(installation);
    const std::string text = readFile(path);
    try {
        return parseDeviceFile(text);
    } catch (const std::runtime_error &fault) {
        throw std::runtime_error(path + ": " + fault.what());
    }
}

static void print(const std::string &line)
{
    (void)printf("%s\n", line.c_str());
}

static void printDone(const char *verb, const std::vector<std::string> &names, bool is_dry)
{
    for (const std::string &name : names)
        print((is_dry ? std::string("would have ") : std::string()) + verb + " " + name);
}

// What was done shows before it is told to the back end, which may take a while.
static void tellBackEnd(const INSTALLATION_T &installation)
{
    (void)fflush(stdout);
    (void)fprintf(stderr, "%s\n", requestReload(installation.control).c_str());
}

// ---- add

// A gateway takes these only.
static void requireName(const std::string &text, const char *what)
{
    const bool is_good = !text.empty() && text.size() <= DEVICE_NAME_MAX &&
                         std::all_of(text.begin(), text.end(), [](char byte) {
                             return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                                    (byte >= '0' && byte <= '9') || byte == '_' || byte == '-';
                         });
    if (!is_good)
        throw std::invalid_argument(std::string(what) + " \"" + text +
                                    "\": a gateway takes 1 to 36 letters, digits, _ and -");
}

static std::string readSecret()
{
    std::string secret;
    for (int byte = getchar(); byte != EOF && byte != '\n'; byte = getchar())
        secret += static_cast<char>(byte);
    if (!secret.empty() && secret.back() == '\r') secret.pop_back();
    if (secret.empty() || secret.size() > SECRET_MAX_BYTES)
        throw std::runtime_error("a secret must have 1 to 63 bytes");
    return secret;
}

static void requireSound(const ADD_T &add)
{
    requireName(add.product, "product key");
    for (const std::string &name : add.names)
        requireName(name, "device name");
    if (add.reads_secret && add.names.size() != 1)
        throw std::invalid_argument(
            "--secret-stdin is for one device: each has a secret of its own");
}

void addDevices(const INSTALLATION_T &installation, const ADD_T &add)
{
    requireSound(add);
    ordered_json labels = ordered_json::object();
    for (const std::string &text : add.labels) {
        const auto [name, value] = parseLabel(text);
        labels[name] = value;
    }
    std::string settings;
    const std::string given = add.reads_secret ? readSecret() : std::string();
    std::vector<std::string> done;
    editDeviceFile(fileOf(installation), [&](DEVICE_FILE_T &file) {
        for (const std::string &name : add.names) {
            const DEVICE_KEY_T key{add.product, name};
            if (!file.places.emplace(key, file.list().size()).second)
                throw std::runtime_error(fullName(key) + " is registered already");
            const std::string secret = given.empty() ? makeRandomText() : given;
            ordered_json entry = {
                {"product_key", add.product}, {"device_name", name}, {"device_secret", secret}};
            if (!labels.empty()) entry["labels"] = labels;
            file.list().push_back(std::move(entry));
            done.push_back(fullName(key));
            if (!add.prints_settings) continue;
            settings += (settings.empty() ? "" : "\n") +
                        gatewaySettings(installation, add.gateway, key, secret);
        }
        return true;
    });
    if (add.prints_settings)
        (void)fputs(settings.c_str(), stdout);
    else
        printDone("added", done, false);
    tellBackEnd(installation);
}

// ---- list, show

static std::string labelText(const REGISTERED_T &device)
{
    std::string text;
    for (const auto &[name, value] : device.labels) {
        if (!text.empty()) text += " ";
        text.append(name).append("=").append(value);
    }
    return text;
}

static ordered_json deviceJson(const REGISTERED_T &device)
{
    ordered_json json = {{"product", device.key.product_key},
                         {"device", device.key.device_name},
                         {"labels", ordered_json::object()}};
    for (const auto &[name, value] : device.labels)
        json["labels"][std::string(name)] = value;
    if (device.secrets.hasValidOld(time(nullptr)))
        json["old_secret_until"] = utcTimeText(device.secrets.oldUntil());
    return json;
}

static bool isMatch(const std::string &pattern, const DEVICE_KEY_T &key)
{
    return pattern.empty() || fnmatch(pattern.c_str(), key.device_name.c_str(), 0) == 0 ||
           fnmatch(pattern.c_str(), fullName(key).c_str(), 0) == 0;
}

void listDevices(const INSTALLATION_T &installation, const LIST_T &list)
{
    const DEVICE_FILE_T file = readDeviceFile(installation);
    Devices found = findLabelled(file, list.where);
    std::erase_if(
        found, [&list](const REGISTERED_T *device) { return !isMatch(list.pattern, device->key); });
    if (list.is_json) {
        ordered_json json = ordered_json::array();
        for (const REGISTERED_T *device : found)
            json.push_back(deviceJson(*device));
        return print(json.dump());
    }
    if (found.empty() && (!list.pattern.empty() || !list.where.empty()))
        throw std::runtime_error("no such device is registered");
    std::size_t width = 0;
    for (const REGISTERED_T *device : found)
        width = std::max(width, fullName(device->key).size());
    for (const REGISTERED_T *device : found) {
        const std::string labels = labelText(*device);
        std::string name = fullName(device->key);
        if (!labels.empty()) name.resize(width + 2, ' ');
        print(name + labels);
    }
}

void showDevice(const INSTALLATION_T &installation, const SHOW_T &show)
{
    const DEVICE_FILE_T file = readDeviceFile(installation);
    const REGISTERED_T &device = findDeviceByName(file.registry, show.name);
    if (show.prints_settings) {
        (void)fputs(
            gatewaySettings(installation, show.gateway, device.key, device.secrets.current())
                .c_str(),
            stdout);
        return;
    }
    print("product     " + device.key.product_key);
    print("name        " + device.key.device_name);
    if (show.prints_secret) print("secret      " + std::string(device.secrets.current()));
    for (const auto &[name, value] : device.labels)
        print("label       " + std::string(name) + "=" + std::string(value));
    if (device.secrets.hasValidOld(time(nullptr))) {
        print("old secret  valid until " + utcTimeText(device.secrets.oldUntil()));
        if (show.prints_secret) print("            " + std::string(device.secrets.old()));
    }
}

// ---- remove, rotate, label

static std::vector<std::string> namesOf(const Devices &devices)
{
    std::vector<std::string> names;
    for (const REGISTERED_T *device : devices)
        names.push_back(fullName(device->key));
    return names;
}

void removeDevices(const INSTALLATION_T &installation, const CHANGE_T &change)
{
    std::vector<std::string> done;
    editDeviceFile(fileOf(installation), [&](DEVICE_FILE_T &file) {
        const Devices devices = findMeant(file, change.meant);
        done = namesOf(devices);
        if (change.is_dry) return false;
        if (devices.size() > 1 && !change.is_sure)
            throw std::runtime_error(
                std::to_string(devices.size()) +
                " devices are meant: --dry-run names them, --yes removes them");
        for (const REGISTERED_T *device : devices)
            file.entryOf(*device) = nullptr;
        ordered_json left = ordered_json::array();
        for (ordered_json &entry : file.list())
            if (!entry.is_null()) left.push_back(std::move(entry));
        file.list() = std::move(left);
        return true;
    });
    printDone("removed", done, change.is_dry);
    if (!change.is_dry) tellBackEnd(installation);
}

// Beside the secret, where a reader looks for them.
static ordered_json withSecrets(const ordered_json &entry, const std::string &secret,
                                std::string_view old, const std::string &until)
{
    ordered_json made = ordered_json::object();
    for (const auto &[name, value] : entry.items()) {
        if (name == "old_secret" || name == "old_secret_until") continue;
        if (name != "device_secret") {
            made[name] = value;
            continue;
        }
        made[name] = secret;
        if (until.empty()) continue;
        made["old_secret"] = old;
        made["old_secret_until"] = until;
    }
    return made;
}

void rotateSecrets(const INSTALLATION_T &installation, const ROTATE_T &rotate)
{
    const std::int64_t now = time(nullptr);
    const std::int64_t keep = parseDuration(rotate.keep_old);
    const std::string until = keep == 0 ? "" : utcTimeText(now + keep);
    const CHANGE_T &change = rotate.change;
    std::vector<std::string> done;
    std::string settings;
    editDeviceFile(fileOf(installation), [&](DEVICE_FILE_T &file) {
        const Devices devices = findMeant(file, change.meant);
        done = namesOf(devices);
        if (change.is_dry) return false;
        for (const REGISTERED_T *device : devices) {
            // Two are valid at once. Without an old one nothing is kept, as after a leak.
            if (keep > 0 && !change.is_sure && device->secrets.hasValidOld(now))
                throw std::runtime_error(
                    fullName(device->key) + ": its old secret is valid until " +
                    utcTimeText(device->secrets.oldUntil()) +
                    "; to rotate again cuts off a gateway that still uses it, and takes --yes");
            const std::string secret = makeRandomText();
            file.entryOf(*device) =
                withSecrets(file.entryOf(*device), secret, device->secrets.current(), until);
            if (rotate.prints_settings)
                settings += (settings.empty() ? "" : "\n") +
                            gatewaySettings(installation, rotate.gateway, device->key, secret);
        }
        return true;
    });
    if (rotate.prints_settings && !change.is_dry)
        (void)fputs(settings.c_str(), stdout);
    else
        printDone("rotated", done, change.is_dry);
    if (change.is_dry) return;
    if (!until.empty()) (void)fprintf(stderr, "the old secret is valid until %s\n", until.c_str());
    tellBackEnd(installation);
}

// "LABEL=VALUE" or "LABEL-", as no name of a device is written.
static bool isLabelChange(const std::string &text)
{
    return text.find('=') != std::string::npos ||
           (text.ends_with('-') && text.find(':') == std::string::npos);
}

static void changeLabels(ordered_json &entry, const std::vector<std::string> &changes)
{
    if (!entry.contains("labels")) entry["labels"] = ordered_json::object();
    ordered_json &labels = entry["labels"];
    for (const std::string &text : changes) {
        if (text.find('=') == std::string::npos) {
            labels.erase(text.substr(0, text.size() - 1));
            continue;
        }
        const auto [name, value] = parseLabel(text);
        labels[name] = value;
    }
    if (labels.empty()) entry.erase("labels");
}

void labelDevices(const INSTALLATION_T &installation, const CHANGE_T &change,
                  const std::vector<std::string> &arguments)
{
    MEANT_T meant = change.meant;
    std::vector<std::string> changes;
    for (const std::string &argument : arguments)
        (isLabelChange(argument) ? changes : meant.names).push_back(argument);
    if (changes.empty())
        throw std::invalid_argument("say what to change: LABEL=VALUE, or LABEL- to take one away");
    std::vector<std::string> done;
    editDeviceFile(fileOf(installation), [&](DEVICE_FILE_T &file) {
        const Devices devices = findMeant(file, meant);
        done = namesOf(devices);
        if (change.is_dry) return false;
        for (const REGISTERED_T *device : devices)
            changeLabels(file.entryOf(*device), changes);
        return true;
    });
    printDone("labelled", done, change.is_dry);
    if (!change.is_dry) tellBackEnd(installation);
}

} // namespace backend
