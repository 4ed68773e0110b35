#include "backend/devices/device_registry.h"

#include "backend/devices/registry_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <stdexcept>

#include <sys/stat.h>

namespace backend {

constexpr std::int64_t FILE_MAX_BYTES = std::int64_t{256} << 20;

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
    if (status.st_size > FILE_MAX_BYTES)
        throw std::runtime_error(path + ": is larger than 256 MiB");
    if ((status.st_mode & S_IROTH) != 0)
        warnings.push_back(path + ": holds secrets and can be read by everybody");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const std::size_t got = fread(text.data(), 1, text.size(), file.get());
    if (ferror(file.get()) != 0) throw std::runtime_error(path + ": cannot be read");
    text.resize(got);
    return text;
}

bool isSecretOf(const REGISTERED_T &device, std::string_view secret, std::int64_t now_s)
{
    const SECRETS_T &secrets = device.secrets;
    return secrets.current() == secret || (secrets.hasValidOld(now_s) && secrets.old() == secret);
}

// ---- the registry

static void refuseDoubles(const std::deque<REGISTERED_T> &devices,
                          const std::vector<std::uint32_t> &by_key)
{
    std::uint32_t first = std::numeric_limits<std::uint32_t>::max();
    for (std::size_t i = 1; i < by_key.size(); i++) {
        if (devices[by_key[i]].key == devices[by_key[i - 1]].key)
            first = std::min(first, by_key[i]);
    }
    if (first != std::numeric_limits<std::uint32_t>::max())
        throw std::runtime_error("devices[" + std::to_string(first) +
                                 "]: this product_key and device_name stand in the list already");
}

DEVICE_REGISTRY_T::DEVICE_REGISTRY_T(std::deque<REGISTERED_T> devices)
    : devices_(std::move(devices)), by_key_(devices_.size())
{
    std::iota(by_key_.begin(), by_key_.end(), 0);
    const auto is_before = [this](std::uint32_t left, std::uint32_t right) {
        const auto order = devices_[left].key <=> devices_[right].key;
        return order == 0 ? left < right : order < 0;
    };
    // Most files are in order.
    if (!std::is_sorted(by_key_.begin(), by_key_.end(), is_before))
        std::sort(by_key_.begin(), by_key_.end(), is_before);
    refuseDoubles(devices_, by_key_);
    by_name_ = by_key_;
    const auto has_less_name = [this](std::uint32_t left, std::uint32_t right) {
        return devices_[left].key.device_name < devices_[right].key.device_name;
    };
    if (!std::is_sorted(by_name_.begin(), by_name_.end(), has_less_name))
        std::sort(by_name_.begin(), by_name_.end(), has_less_name);
}

const REGISTERED_T *DEVICE_REGISTRY_T::find(const DEVICE_KEY_T &key) const
{
    const auto found = std::lower_bound(by_key_.begin(), by_key_.end(), key,
                                        [this](std::uint32_t index, const DEVICE_KEY_T &wanted) {
                                            return devices_[index].key < wanted;
                                        });
    if (found == by_key_.end() || devices_[*found].key != key) return nullptr;
    return &devices_[*found];
}

std::size_t DEVICE_REGISTRY_T::indexAfter(const DEVICE_KEY_T &key) const
{
    const auto found = std::upper_bound(by_key_.begin(), by_key_.end(), key,
                                        [this](const DEVICE_KEY_T &wanted, std::uint32_t index) {
                                            return wanted < devices_[index].key;
                                        });
    return static_cast<std::size_t>(found - by_key_.begin());
}

std::vector<const REGISTERED_T *> DEVICE_REGISTRY_T::findMeant(std::string_view name) const
{
    // A product key or a name may hold a colon, too.
    for (std::size_t colon = name.find(':'); colon != std::string_view::npos;
         colon = name.find(':', colon + 1)) {
        const REGISTERED_T *device =
            find({std::string(name.substr(0, colon)), std::string(name.substr(colon + 1))});
        if (device != nullptr) return {device};
    }
    auto found = std::lower_bound(by_name_.begin(), by_name_.end(), name,
                                  [this](std::uint32_t index, std::string_view wanted) {
                                      return devices_[index].key.device_name < wanted;
                                  });
    std::vector<const REGISTERED_T *> meant;
    for (; found != by_name_.end() && devices_[*found].key.device_name == name; ++found)
        meant.push_back(&devices_[*found]);
    return meant;
}

DEVICE_REGISTRY_T parseRegistry(std::string_view text)
{
    return DEVICE_REGISTRY_T(readRegistered(text));
}

DEVICE_REGISTRY_T loadRegistry(const std::string &path, std::vector<std::string> &warnings)
{
    const std::string text = readWholeFile(path, warnings);
    try {
        DEVICE_REGISTRY_T registry = parseRegistry(text);
        if (registry.size() == 0)
            warnings.push_back(path + ": lists no device, so none can connect");
        return registry;
    } catch (const std::exception &fault) {
        throw std::runtime_error(path + ": " + fault.what());
    }
}

const REGISTERED_T &findDeviceByName(const DEVICE_REGISTRY_T &registry, std::string_view name)
{
    const auto named = registry.findMeant(name);
    if (named.empty()) throw std::runtime_error("no device is named " + std::string(name));
    if (named.size() > 1)
        throw std::runtime_error("several devices are named " + std::string(name) +
                                 ": write PRODUCT_KEY:DEVICE_NAME");
    return *named.front();
}

} // namespace backend
