#include "src/service_catalogue.h"

#include "common/log.h"
#include "src/config.h"
#include "src/remote_access_local_common.h"
#include "src/request_payload.h"
#include "utility/json_handles.h"
#include "utility/json_scanner.h"
#include "utility/text.h"

#include <new>

namespace {

// Operations whose lines are written by helpers here.
constexpr char READ_CATALOGUE[] = "getLocalServiceInfo";

constexpr char DEFAULT_SERVICES[] =
    R"([{"type":"SFTP","name":"sftp_localhost","ip":"127.0.0.1","port":22},)"
    R"({"type":"SSH","name":"ssh_localhost","ip":"127.0.0.1","port":22},)"
    R"({"type":"SFTP","name":"sftp_hostmachine","ip":"172.17.0.1","port":22},)"
    R"({"type":"SSH","name":"ssh_hostmachine","ip":"172.17.0.1","port":22},)"
    R"({"type":"HTTP","name":"http_localhost","ip":"127.0.0.1","port":80},)"
    R"({"type":"HTTPS","name":"openapi_brimlock","ip":"127.0.0.1","port":9999}])";
static_assert(sizeof DEFAULT_SERVICES - 1 == 410);

constexpr std::uint32_t PORT_LIMIT = 65536;

bool isHostMachineService(std::string_view name)
{
    return name.starts_with("ssh_hostmachine") || name.starts_with("sftp_hostmachine");
}

// The text of a string member, or null.
const char *stringMember(const cJSON *object, const char *key)
{
    const cJSON *const member = cJSON_GetObjectItem(object, key);
    return cJSON_IsString(member) != 0 ? member->valuestring : nullptr;
}

} // namespace

void addServiceToList(std::uint32_t *service_count, LIST_LINK_T *service_list, const char *name,
                      const char *type, const char *ip, std::uint32_t port)
{
    auto *const service = new (std::nothrow) SERVICE_INFO_T();
    if (service == nullptr) return;
    copy_text(service->service_name, name);
    copy_text(service->service_type, type);
    copy_text(service->service_ip, ip);
    service->service_port = port;
    list_add(&service->list_link, service_list);
    ++*service_count;
}

int parseServiceInfo(REMOTE_ACCESS_CONFIG_T *record, const char *text)
{
    const JsonPtr root{cJSON_Parse(text)};
    if (!root) {
        RA_WARN("cJSON parse serviceInfo failed");
        return -1;
    }
    const char *const name = stringMember(root.get(), "name");
    if (name == nullptr) {
        RA_WARN("serviceInfo \"name\"  is invalid");
        return -1;
    }
    const char *const type = stringMember(root.get(), "type");
    if (type == nullptr) {
        RA_WARN("serviceInfo \"type\"  is invalid");
        return -1;
    }
    const char *const ip = stringMember(root.get(), "ip");
    if (ip == nullptr) {
        RA_WARN("serviceInfo \"ip\"  is invalid");
        return -1;
    }
    const cJSON *const port_member = cJSON_GetObjectItem(root.get(), "port");
    if (cJSON_IsNumber(port_member) == 0) {
        RA_WARN("serviceInfo \"port\"  is invalid");
        return -1;
    }
    const auto port =
        static_cast<std::uint32_t>(port_member->valueint); // a negative one is far above the limit
    if (port >= PORT_LIMIT) {
        RA_WARN("service port must <= 65535");
        return -1;
    }
    const bool on_host = record->edition == EDITION_PROFESSIONAL && isHostMachineService(name);
    addServiceToList(&record->service_count, &record->service_list, name, type,
                     on_host ? record->host_machine_ip : ip, port);
    return 0;
}

void addServicesOfText(REMOTE_ACCESS_CONFIG_T *record, const char *text)
{
    const char *position = json_find_start(JSON_SCAN_ARRAY, text);
    int examined = 0;
    // Each scan starts one character after the end of the element before, or after the array's
    // bracket.
    while (position != nullptr && *position != '\0') {
        const char *value = nullptr;
        std::size_t value_len = 0;
        std::int32_t type = JSON_TYPE_NONE;
        position = json_next_item(JSON_SCAN_ARRAY, position + 1, nullptr, nullptr, &value,
                                  &value_len, &type);
        if (type != JSON_TYPE_OBJECT) continue;
        (void)parseServiceInfo(record,
                               value); // an invalid one is logged there and counts all the same
        if (++examined == MAX_SERVICE_OBJECTS) {
            RA_WARN_FOR(READ_CATALOGUE, "number of services is limited: %d", MAX_SERVICE_OBJECTS);
            return;
        }
    }
}

int getLocalServiceInfo(REMOTE_ACCESS_CONFIG_T *record)
{
    const HeapText file_text{local_common::_load_cfg_from_json(SERVICE_LIST_FILE)};
    if (!file_text) RA_WARN("can not get service list, using default value");
    const char *const text = file_text ? file_text.get() : DEFAULT_SERVICES;
    RA_INFO("local service list info : %s", text);
    addServicesOfText(record, text);
    return 0;
}

SERVICE_INFO_T *findLocalServiceInfo(const LIST_LINK_T *service_list,
                                     const NEW_SESSION_REQ_T &request)
{
    for (LIST_LINK_T *link = service_list->next; link != service_list; link = link->next) {
        SERVICE_INFO_T *const service = container_of(link, SERVICE_INFO_T, list_link);
        if (text_of(service->service_type) == text_of(request.service_type) &&
            text_of(service->service_name) == text_of(request.service_name) &&
            text_of(service->service_ip) == text_of(request.service_ip) &&
            service->service_port == static_cast<std::uint32_t>(request.service_port))
            return service;
    }
    return nullptr;
}
