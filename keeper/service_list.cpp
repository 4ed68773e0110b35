#include "keeper/service_list.h"

#include "utility/json_handles.h"

#include <algorithm>
#include <cerrno>
#include <cjson/cJSON.h>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace keeper {

namespace {

constexpr std::size_t ENTRIES_MAX = 20; // the daemon looks at no more
constexpr int PORT_LIMIT = 65536;

bool takeText(const cJSON *entry, const char *name, std::string &text)
{
    const cJSON *const member = cJSON_GetObjectItem(entry, name);
    if (cJSON_IsString(member) == 0) return false;
    text = member->valuestring;
    return true;
}

bool takeEntry(const cJSON *entry, KEPT_SERVICE_T &service)
{
    const cJSON *const port = cJSON_GetObjectItem(entry, "port");
    if (cJSON_IsNumber(port) == 0 || port->valueint < 0 || port->valueint >= PORT_LIMIT)
        return false;
    service.port = static_cast<std::uint16_t>(port->valueint);
    return takeText(entry, "type", service.type) && takeText(entry, "name", service.name) &&
           takeText(entry, "ip", service.ip);
}

bool isOnHost(const std::string &name)
{
    return name.starts_with("ssh_hostmachine") || name.starts_with("sftp_hostmachine");
}

} // namespace

std::vector<KEPT_SERVICE_T> parseServices(const std::string &text)
{
    const JsonPtr list{cJSON_Parse(text.c_str())};
    if (cJSON_IsArray(list.get()) == 0) throw std::runtime_error("is no JSON array");
    std::vector<KEPT_SERVICE_T> services;
    std::size_t count = 0;
    for (const cJSON *entry = list->child; entry != nullptr && count < ENTRIES_MAX;
         entry = entry->next, ++count) {
        KEPT_SERVICE_T service;
        if (takeEntry(entry, service)) services.push_back(std::move(service));
    }
    return services;
}

std::vector<KEPT_SERVICE_T> readServices(const std::string &path)
{
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> file{std::fopen(path.c_str(), "re")};
    if (!file) throw std::runtime_error(path + ": " + std::strerror(errno));
    std::string text(SERVICE_FILE_MAX + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0) throw std::runtime_error(path + ": cannot be read");
    if (text.size() > SERVICE_FILE_MAX)
        throw std::runtime_error(path + ": has more than " + std::to_string(SERVICE_FILE_MAX) +
                                 " bytes");
    try {
        return parseServices(text);
    } catch (const std::runtime_error &fault) {
        throw std::runtime_error(path + ": " + fault.what());
    }
}

std::optional<KEPT_SERVICE_T> ownEntry(const std::vector<KEPT_SERVICE_T> &services)
{
    for (const KEPT_SERVICE_T &service : services)
        if (service.type == keep::KEEPER_TYPE) return service;
    return std::nullopt;
}

bool isListed(const std::vector<KEPT_SERVICE_T> &services, const KEPT_SERVICE_T &wanted,
              const std::string &host)
{
    return std::any_of(services.begin(), services.end(), [&](KEPT_SERVICE_T service) {
        if (service.type == keep::KEEPER_TYPE) return false;
        if (service == wanted) return true;
        if (!isOnHost(service.name) || host.empty()) return false;
        service.ip = host;
        return service == wanted;
    });
}

} // namespace keeper
