// The catalogue of local TCP services that the gateway offers: announced in the handshake, listed
// on the bus, looked up when a session is opened.
//
// Source   a JSON array of objects with "type", "name", "ip" (strings) and "port" (number) in
//          SERVICE_LIST_FILE, or the built-in list when that file cannot be read. At most
//          MAX_SERVICE_OBJECTS objects are examined.
// Order    newest first, that is the reverse of the file's.
// Owner    the record's service_list; entries live as long as the process.
// Threads  filled by the main thread before the proxy thread starts, read-only from then on.
#pragma once

#include "utility/list.h"

#include <cstdint>
#include <type_traits>

struct NEW_SESSION_REQ_T;
struct REMOTE_ACCESS_CONFIG_T;

constexpr char SERVICE_LIST_FILE[] = "/brimlock/gateway/build/config/remote_terminal.json";
constexpr int MAX_SERVICE_OBJECTS = 20;

struct SERVICE_INFO_T {
    char service_type[16];
    char service_name[32];
    char service_ip[24];
    std::uint32_t service_port; // 0 to 65535
    LIST_LINK_T list_link;
};
static_assert(std::is_standard_layout_v<SERVICE_INFO_T>);

// Reads the file or takes the built-in list. Always 0.
int getLocalServiceInfo(REMOTE_ACCESS_CONFIG_T *record);

// Adds every service of a JSON array text; what is not an array adds none.
void addServicesOfText(REMOTE_ACCESS_CONFIG_T *record, const char *text);

// One object of the array (the text may run on past its end). 0 when an entry was added, -1 when it
// is not valid.
int parseServiceInfo(REMOTE_ACCESS_CONFIG_T *record, const char *text);

// Longer texts are cut. Without memory for the entry nothing is added.
void addServiceToList(std::uint32_t *service_count, LIST_LINK_T *service_list, const char *name,
                      const char *type, const char *ip, std::uint32_t port);

// The first entry whose four values all equal the request's, or null.
SERVICE_INFO_T *findLocalServiceInfo(const LIST_LINK_T *service_list,
                                     const NEW_SESSION_REQ_T &request);
