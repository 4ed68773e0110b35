// The service list file: its text as an array and as one element, and what the handshake makes of
// the services found.
// Under test: src/service_catalogue.cpp src/handshake_request.cpp(splice|calc|append|count)
#include "src/cloud_protocol.h"
#include "src/config.h"
#include "src/handshake_request.h"
#include "src/request_payload.h"
#include "src/service_catalogue.h"
#include "tests/fuzz/fuzz.h"
#include "utility/text.h"

#include <cstring>
#include <string>

namespace {

constexpr std::uint32_t MAX_ENTRIES = MAX_SERVICE_OBJECTS + 1; // the array's and the one element

void requireSound(const SERVICE_INFO_T &service, const LIST_LINK_T *list)
{
    REQUIRE(isTerminated(service.service_type) && isTerminated(service.service_name));
    REQUIRE(isTerminated(service.service_ip) && service.service_port <= 65535);
    NEW_SESSION_REQ_T request{};
    copy_text(request.service_type, service.service_type);
    copy_text(request.service_name, service.service_name);
    const bool askable = copy_text(request.service_ip, service.service_ip);
    request.service_port = static_cast<std::int32_t>(service.service_port);
    REQUIRE(!askable || findLocalServiceInfo(list, request) != nullptr);
}

// Every service that was found is announced.
void requireAnnounced(const REMOTE_ACCESS_CONFIG_T &record)
{
    const HeapText text = spliceLocalServiceInfoContent(&record.service_list);
    REQUIRE(text && text.get()[0] == '[' && std::string_view{text.get()}.ends_with("}]"));
    static char payload[MESSAGE_BUFFER_SIZE];
    const int length = spliceProxyProtocolHandShakePayload(payload, record.product_key,
                                                           record.device_name, "s", text.get());
    REQUIRE(length > 0 && std::strstr(payload, text.get()) != nullptr);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto text = terminatedCopy(viewOf(data, size));
    const auto record = std::make_unique<REMOTE_ACCESS_CONFIG_T>();
    list_init(&record->service_list);
    record->edition = EDITION_PROFESSIONAL; // names of the host machine's services matter
    copy_text(record->host_machine_ip, "172.17.0.1");

    addServicesOfText(record.get(), text.get());
    (void)parseServiceInfo(record.get(), text.get());
    requireAnnounced(*record);
    REQUIRE(record->service_count <= MAX_ENTRIES);
    std::uint32_t found = 0;
    LIST_LINK_T *const head = &record->service_list;
    for (LIST_LINK_T *link = head->next; link != head; link = link->next, ++found)
        requireSound(*container_of(link, SERVICE_INFO_T, list_link), head);
    REQUIRE(found == record->service_count);
    while (head->next != head) {
        SERVICE_INFO_T *const service = container_of(head->next, SERVICE_INFO_T, list_link);
        list_del(&service->list_link);
        delete service;
    }
    return 0;
}
