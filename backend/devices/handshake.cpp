#include "backend/devices/handshake.h"

#include "backend/utc_time.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace backend {

using nlohmann::json;

constexpr std::string_view CLIENT_ID = "quorvex_iot";
constexpr std::string_view PROTOCOL_VERSION = "2.1";
constexpr std::string_view SIGN_METHOD = "hmacsha256";
constexpr std::size_t SIGN_SIZE = 64;
constexpr std::string_view NO_SECRET = "checked for a device that is unknown"; // never accepted
constexpr std::size_t SERVICE_TEXT_MAX = 63;

// Null unless the member is there and is a text.
static const std::string *findText(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found == object.end() ? nullptr : found->get_ptr<const std::string *>();
}

static std::optional<SERVICE_T> readService(const json &entry)
{
    if (!entry.is_object()) return std::nullopt;
    const std::string *type = findText(entry, "service_type");
    const std::string *name = findText(entry, "service_name");
    const std::string *ip = findText(entry, "service_ip");
    const auto port = entry.find("service_port");
    if (type == nullptr || name == nullptr || ip == nullptr || port == entry.end())
        return std::nullopt;
    if (!port->is_number_unsigned() || port->get<std::uint64_t>() > 65535) return std::nullopt;
    for (const std::string *text : {type, name, ip}) {
        if (text->size() > SERVICE_TEXT_MAX) return std::nullopt;
    }
    return SERVICE_T{*type, *name, *ip, port->get<std::int64_t>()};
}

static void addRemark(std::string &remark, const std::string &service, const char *text)
{
    remark += (remark.empty() ? "service \"" : "; service \"") + service + "\" " + text;
}

// remark: what was left out, for the log.
static bool readServices(const json &payload, std::vector<SERVICE_T> &services, std::string &remark)
{
    const auto list = payload.find("service_meta");
    if (list == payload.end() || !list->is_array() || list->size() > SERVICES_MAX) return false;
    for (const json &entry : *list) {
        std::optional<SERVICE_T> service = readService(entry);
        if (!service) return false;
        const bool is_second =
            std::any_of(services.begin(), services.end(),
                        [&](const SERVICE_T &first) { return first.name == service->name; });
        // A session names the service by these texts, and the device reads them without escapes.
        if (is_second) {
            addRemark(remark, service->name, "is announced twice, the first one counts");
        } else if (isPlainText(service->type) && isPlainText(service->name) &&
                   isPlainText(service->ip)) {
            services.push_back(std::move(*service));
        } else {
            addRemark(remark, service->name, "is left out: its texts cannot be sent back");
        }
    }
    return true;
}

struct PROOF_T {
    std::int64_t signed_second = 0;
    std::string_view secret;
};

// What was signed with which secret, if any. Takes the same time whatever the answer is.
// device: null when it is unknown.
static std::optional<PROOF_T> findProof(std::string_view sign, const REGISTERED_T *device,
                                        const DEVICE_KEY_T &key, std::int64_t timestamp,
                                        std::int64_t now)
{
    if (sign.size() != SIGN_SIZE) return std::nullopt;
    std::string_view current;
    std::string_view old;
    if (device != nullptr) current = device->secrets.current();
    if (device != nullptr && device->secrets.hasValidOld(now)) old = device->secrets.old();
    std::optional<PROOF_T> proof;
    for (const std::string_view secret : {old, current}) {
        for (const std::int64_t second : {timestamp, timestamp - 1}) {
            const std::string expected =
                signHandshake(secret.empty() ? NO_SECRET : secret, CLIENT_ID, key, second);
            const bool is_equal = CRYPTO_memcmp(sign.data(), expected.data(), SIGN_SIZE) == 0;
            if (is_equal && !secret.empty()) proof = {second, secret};
        }
    }
    return proof;
}

static HANDSHAKE_RESULT_T refuse(HANDSHAKE_CODE code, std::string detail, DEVICE_KEY_T device = {})
{
    return {code, std::move(detail), std::move(device), {}, 0, {}};
}

static HANDSHAKE_RESULT_T checkPayload(const json &payload, std::int64_t timestamp,
                                       const DeviceRegistry &registry, std::int64_t now)
{
    const std::string *uuid = findText(payload, "uuid");
    const std::string *key = findText(payload, "product_key");
    const std::string *name = findText(payload, "device_name");
    const std::string *version = findText(payload, "version");
    const std::string *method = findText(payload, "signmethod");
    const std::string *sign = findText(payload, "sign");
    for (const std::string *text : {uuid, key, name, version, method, sign}) {
        if (text == nullptr) return refuse(HANDSHAKE_MALFORMED, "a field is missing or is no text");
    }
    if (*uuid != CLIENT_ID)
        return refuse(HANDSHAKE_UNSUPPORTED, "unknown client identifier " + *uuid);
    if (*version != PROTOCOL_VERSION)
        return refuse(HANDSHAKE_UNSUPPORTED, "unknown protocol version " + *version);
    if (*method != SIGN_METHOD)
        return refuse(HANDSHAKE_UNSUPPORTED, "unknown sign method " + *method);
    // A longer one is in no registry; in the log and the audit it would only take room.
    if (key->size() > DEVICE_NAME_MAX || name->size() > DEVICE_NAME_MAX)
        return refuse(HANDSHAKE_MALFORMED, "product key or device name is too long");
    HANDSHAKE_RESULT_T result{HANDSHAKE_ACCEPTED, {}, {*key, *name}, {}, 0, {}};
    const REGISTERED_T *known = registry.find(result.device);
    const std::optional<PROOF_T> proof = findProof(*sign, known, result.device, timestamp, now);
    if (known == nullptr) return refuse(HANDSHAKE_BAD_SIGNATURE, "unknown device", result.device);
    if (!proof) return refuse(HANDSHAKE_BAD_SIGNATURE, "wrong signature", result.device);
    result.signed_second = proof->signed_second;
    if (timestamp > now + CLOCK_TOLERANCE_S || timestamp < now - CLOCK_TOLERANCE_S) {
        return refuse(HANDSHAKE_CLOCK_OFF,
                      "clock differs by " + std::to_string(timestamp - now) + " s", result.device);
    }
    if (!readServices(payload, result.services, result.detail)) {
        return refuse(HANDSHAKE_MALFORMED, "service_meta is no list of services", result.device);
    }
    result.proved_secret = proof->secret;
    if (result.proved_secret != known->secrets.current()) {
        result.detail += (result.detail.empty() ? "used its old secret, valid until "
                                                : "; used its old secret, valid until ") +
                         utcTimeText(known->secrets.oldUntil());
    }
    return result;
}

HANDSHAKE_RESULT_T checkHandshake(const MESSAGE_T &message, const DeviceRegistry &registry,
                                  std::int64_t now)
{
    if (message.header.type != MESSAGE_HANDSHAKE || message.header.msg_id != HANDSHAKE_ID) {
        return refuse(HANDSHAKE_MALFORMED, "message of type " +
                                               std::to_string(message.header.type) +
                                               " before the handshake");
    }
    constexpr std::int64_t LATEST = std::int64_t{1} << 40; // keeps the sums below within their type
    if (message.header.timestamp <= 0 || message.header.timestamp > LATEST) {
        return refuse(HANDSHAKE_MALFORMED, "no usable timestamp");
    }
    const json payload =
        json::parse(message.payload.begin(), message.payload.end(), nullptr, false);
    if (!payload.is_object()) return refuse(HANDSHAKE_MALFORMED, "payload is no JSON object");
    return checkPayload(payload, message.header.timestamp, registry, now);
}

const char *handshakeCodeText(HANDSHAKE_CODE code)
{
    switch (code) {
    case HANDSHAKE_ACCEPTED:
        return "accepted";
    case HANDSHAKE_MALFORMED:
        return "malformed handshake";
    case HANDSHAKE_BAD_SIGNATURE:
        return "unknown device or wrong signature";
    case HANDSHAKE_DUPLICATE:
        return "another device of this name is connected";
    case HANDSHAKE_CLOCK_OFF:
        return "clock differs too much";
    case HANDSHAKE_UNSUPPORTED:
        return "unsupported client, version or sign method";
    case HANDSHAKE_UNAVAILABLE:
        return "not available at the moment";
    }
    return "refused";
}

std::string signHandshake(std::string_view secret, std::string_view client_id,
                          const DEVICE_KEY_T &device, std::int64_t timestamp)
{
    std::string text;
    text.append("clientId").append(client_id).append("deviceName").append(device.device_name);
    text.append("productKey")
        .append(device.product_key)
        .append("timestamp")
        .append(std::to_string(timestamp));
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    std::size_t size = 0;
    if (EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, secret.data(), secret.size(),
                  reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data(),
                  digest.size(), &size) == nullptr) {
        throw std::runtime_error("HMAC-SHA256 is not available");
    }
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string sign;
    for (std::size_t i = 0; i < size; i++) {
        sign += DIGITS[digest[i] >> 4];
        sign += DIGITS[digest[i] & 15];
    }
    return sign;
}

} // namespace backend
