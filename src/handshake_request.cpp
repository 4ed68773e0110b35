#include "src/handshake_request.h"

#include "common/log.h"
#include "src/service_catalogue.h"
#include "utility/json_scanner.h"
#include "utility/sha256/hmac-sha256.h"
#include "utility/text.h"

#include <cinttypes>
#include <cstring>
#include <ctime>

namespace {

constexpr char CLIENT_ID[] = "quorvex_iot";
constexpr char PROTOCOL_VERSION[] = "2.1";
constexpr char SIGN_FORMAT[] = "clientId%sdeviceName%sproductKey%stimestamp%" PRIu64;
constexpr char PAYLOAD_FORMAT[] =
    "{\"uuid\": \"%s\",\"product_key\": \"%s\",\"device_name\": "
    "\"%s\",\"version\":\"%s\",\"IP\":\"%s\",\"MAC\":\"%s\","
    "\"token\":\"\", \"service_meta\": %s,\"signmethod\": \"hmacsha256\", \"sign\": \"%s\"}";
constexpr char SERVICE_FORMAT[] =
    "{\"service_type\":\"%s\",\"service_name\":\"%s\",\"service_ip\":\"%s\",\"service_port\":%d}";

// The payload format's 146 fixed characters, the version's 3, the NUL, and some to spare.
constexpr std::size_t PAYLOAD_ROOM = 166;
// One service element with its comma is at most 144 characters: 69 fixed, 15 + 31 + 23, 5 digits, 1
// comma.
constexpr std::size_t SERVICE_ROOM = 156;
constexpr std::size_t SIGN_BUFFER_SIZE = 1024;

// Appends one service at text + used; returns the length of the whole text, or size when it is
// full.
std::size_t appendService(char *text, std::size_t used, std::size_t size, const char *type,
                          const char *name, const char *ip, std::uint32_t port)
{
    const int count = format_text({text + used, size - used}, SERVICE_FORMAT, type, name, ip,
                                  static_cast<int>(port));
    const std::size_t end = used + static_cast<std::size_t>(count > 0 ? count : 0);
    return end < size ? end : size;
}

std::size_t countServices(const LIST_LINK_T *service_list)
{
    std::size_t count = 0;
    for (const LIST_LINK_T *link = service_list->next; link != service_list; link = link->next)
        ++count;
    return count;
}

} // namespace

const char *calc_sign(const char *client_id, const char *device_name, const char *product_key,
                      const char *device_secret)
{
    static char sign_string[SIGN_BUFFER_SIZE];
    static char sign[SIGN_BUFFER_SIZE];
    std::uint8_t digest[SHA256_DIGEST_SIZE] = {};
    copy_text(sign, "");
    format_text(sign_string, SIGN_FORMAT, client_id, device_name, product_key,
                static_cast<std::uint64_t>(std::time(nullptr)));
    RA_DEBUG("sign string is :  %s", sign_string);
    // The key is taken with its NUL, which HMAC's zero padding makes equal to the key without it. A
    // refused key leaves the digest at zeros.
    hmac_sha256(digest, sign_string, static_cast<std::uint32_t>(std::strlen(sign_string)),
                device_secret, static_cast<std::uint32_t>(std::strlen(device_secret) + 1));
    for (std::size_t i = 0; i < sizeof digest; ++i)
        format_text({sign + 2 * i, 3}, "%02x", digest[i]);
    return sign;
}

int spliceProxyProtocolHandShakePayload(std::span<char> dst, const char *product_key,
                                        const char *device_name, const char *device_secret,
                                        const char *services_info)
{
    const char *const sign = calc_sign(CLIENT_ID, device_name, product_key, device_secret);
    const std::size_t room = std::strlen(CLIENT_ID) + std::strlen(product_key) +
                             std::strlen(device_name) + std::strlen(services_info) +
                             std::strlen(sign) + PAYLOAD_ROOM;
    if (room >= dst.size()) {
        RA_ERROR("cloud channel hand shake payload is longer than buffer");
        return -1;
    }
    std::memset(dst.data(), 0, dst.size());
    const int count = format_text(dst.first(room), PAYLOAD_FORMAT, CLIENT_ID, product_key,
                                  device_name, PROTOCOL_VERSION, "", "", services_info, sign);
    if (count > 0) RA_DEBUG("handshake payload: %.*s", count, dst.data());
    return count;
}

HeapText spliceLocalServiceInfoContent(const LIST_LINK_T *service_list)
{
    const std::size_t count = countServices(service_list);
    const std::size_t size = (count > 0 ? count : 1) * SERVICE_ROOM + 4;
    HeapText text{static_cast<char *>(std::calloc(size, 1))};
    if (!text) return nullptr;
    char *const array = text.get();
    array[0] = '[';
    std::size_t used = 1;
    std::size_t written = 0;
    for (LIST_LINK_T *link = service_list->next; link != service_list; link = link->next) {
        const SERVICE_INFO_T *const service = container_of(link, SERVICE_INFO_T, list_link);
        if (used + 3 >= size) { // room for a comma, the bracket and the NUL
            RA_WARN("splice content of local service list error!");
            return nullptr;
        }
        used = appendService(array, used, size - 2, service->service_type, service->service_name,
                             service->service_ip, service->service_port);
        if (++written < count && used < size - 2) array[used++] = ',';
    }
    if (count == 0)
        used = appendService(array, used, size - 2, "SSH", "ssh_localhost", "127.0.0.1", 22);
    array[used] = ']';
    return text;
}

int parseProxyProtocolHandShakeResponse(const char *payload, std::int32_t length,
                                        std::int32_t *code)
{
    const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
    const JSON_VALUE_T value = json_lookup({payload, size}, "code");
    if (value.type != JSON_TYPE_NUMBER || value.text.empty()) {
        RA_ERROR("cloud response packet error: %s ", payload);
        return -1;
    }
    *code = parse_int32(value.text);
    return 0;
}
