// The first message of a connection, all that the back end reads of a peer before it knows it: as
// it is, and once more with the signature of a known device, which no fuzzer finds.
// Under test: backend/devices/protocol.cpp(parseMessage|read|take|isPlain)
// Under test: backend/devices/handshake.cpp
#include "backend/devices/handshake.h"
#include "tests/fuzz/fuzz.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

using namespace backend;
using nlohmann::json;

namespace {

constexpr std::int64_t NOW = 1600000000;
const DeviceRegistry g_registry = parseRegistry(
    R"({"devices":[{"product_key":"pk1","device_name":"dev1","device_secret":"secret1"}]})");

void requireSound(const HANDSHAKE_RESULT_T &result, const HEADER_T &header)
{
    const bool is_accepted = result.code == HANDSHAKE_ACCEPTED;
    REQUIRE(is_accepted || !result.detail.empty());
    REQUIRE(is_accepted || (result.services.empty() && result.signed_second == 0));
    if (!is_accepted) return;
    REQUIRE(g_registry.find(result.device) != nullptr);
    REQUIRE(std::abs(header.timestamp - NOW) <= CLOCK_TOLERANCE_S);
    REQUIRE(header.timestamp - result.signed_second <= 1);
    REQUIRE(result.services.size() <= SERVICES_MAX);
    for (const SERVICE_T &service : result.services)
        REQUIRE(isPlainText(service.name) && isPlainText(service.type) && isPlainText(service.ip));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    MESSAGE_T message;
    if (parseMessage({data, size}, message) != nullptr) return 0;
    requireSound(checkHandshake(message, g_registry, NOW), message.header);
    json payload = json::parse(message.payload.begin(), message.payload.end(), nullptr, false);
    if (!payload.is_object()) return 0;
    const DEVICE_KEY_T &device = g_registry[0].key;
    payload["product_key"] = device.product_key;
    payload["device_name"] = device.device_name;
    payload["sign"] = signHandshake(g_registry[0].secrets.current(), "quorvex_iot", device,
                                    message.header.timestamp);
    const std::string text = payload.dump(-1, ' ', false, json::error_handler_t::replace);
    message.payload = {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
    requireSound(checkHandshake(message, g_registry, NOW), message.header);
    return 0;
}
