#include "backend/devices/device_registry.h"

#include "backend/devices/protocol.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace backend {

using nlohmann::json;

constexpr std::size_t SECRET_MAX_BYTES = 63;
constexpr std::int64_t FILE_MAX_BYTES = std::int64_t{16} << 20;

struct FileCloser {
    void operator()(FILE *file) const
    {
        (void)fclose(file);
    }
};

static std::string readWholeFile(const std::string &path, std::vector<std::string> &warnings)
{
    const std::unique_ptr<FILE, FileCloser> file{fopen(path.c_str(), "rbe")};
    if (!file) throw std::runtime_error(path + ": " + strerror(errno));
    struct stat status = {};
    if (fstat(fileno(file.get()), &status) != 0)
        throw std::runtime_error(path + ": " + strerror(errno));
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + ": is no regular file");
    if (status.st_size > FILE_MAX_BYTES) throw std::runtime_error(path + ": is larger than 16 MiB");
    if ((status.st_mode & S_IROTH) != 0)
        warnings.push_back(path + ": holds secrets and can be read by everybody");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const std::size_t got = fread(text.data(), 1, text.size(), file.get());
    if (ferror(file.get()) != 0) throw std::runtime_error(path + ": cannot be read");
    text.resize(got);
    return text;
}

static std::string readField(const json &entry, const char *key, std::size_t limit,
                             const std::string &place)
{
    const std::string where = place + "." + key;
    const auto found = entry.find(key);
    if (found == entry.end()) throw std::runtime_error(where + ": is missing");
    if (!found->is_string()) throw std::runtime_error(where + ": must be a text");
    std::string value = found->get<std::string>();
    if (value.empty() || value.size() > limit) {
        throw std::runtime_error(where + ": must have 1 to " + std::to_string(limit) + " bytes");
    }
    if (!isPlainText(value))
        throw std::runtime_error(where + ": holds a quote, backslash or control character");
    return value;
}

static void addEntry(DEVICE_REGISTRY_T &registry, const json &entry, const std::string &place)
{
    if (!entry.is_object()) throw std::runtime_error(place + ": must be an object");
    DEVICE_KEY_T key{readField(entry, "product_key", DEVICE_NAME_MAX, place),
                     readField(entry, "device_name", DEVICE_NAME_MAX, place)};
    std::string secret = readField(entry, "device_secret", SECRET_MAX_BYTES, place);
    if (!registry.emplace(std::move(key), std::move(secret)).second) {
        throw std::runtime_error(place +
                                 ": this product_key and device_name stand in the list already");
    }
}

DEVICE_REGISTRY_T parseRegistry(std::string_view text)
{
    json root;
    try {
        root = json::parse(text);
    } catch (const json::parse_error &fault) {
        // The library puts its own name and number in brackets before the words and the place.
        const std::string_view words = fault.what();
        const std::size_t start = words.find("] ");
        throw std::runtime_error(
            std::string(start == std::string_view::npos ? words : words.substr(start + 2)));
    }
    const auto list = root.is_object() ? root.find("devices") : root.end();
    if (!root.is_object() || list == root.end() || !list->is_array()) {
        throw std::runtime_error("must be an object with the array \"devices\"");
    }
    DEVICE_REGISTRY_T registry;
    for (std::size_t i = 0; i < list->size(); i++) {
        addEntry(registry, (*list)[i], "devices[" + std::to_string(i) + "]");
    }
    return registry;
}

DEVICE_REGISTRY_T loadRegistry(const std::string &path, std::vector<std::string> &warnings)
{
    const std::string text = readWholeFile(path, warnings);
    try {
        DEVICE_REGISTRY_T registry = parseRegistry(text);
        if (registry.empty()) warnings.push_back(path + ": lists no device, so none can connect");
        return registry;
    } catch (const std::exception &fault) {
        throw std::runtime_error(path + ": " + fault.what());
    }
}

DEVICE_KEY_T findDeviceByName(const DEVICE_REGISTRY_T &registry, std::string_view name)
{
    std::optional<DEVICE_KEY_T> found;
    for (const auto &[key, secret] : registry) {
        if (key.product_key + ":" + key.device_name == name) return key;
        if (key.device_name != name) continue;
        if (found) {
            throw std::runtime_error("several devices are named " + std::string(name) +
                                     ": write PRODUCT_KEY:DEVICE_NAME");
        }
        found = key;
    }
    if (!found) throw std::runtime_error("no device is named " + std::string(name));
    return *found;
}

} // namespace backend
