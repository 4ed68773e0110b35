// The check of a device's handshake, and its answer. A device signs
// "clientId<uuid>deviceName<name>productKey<key>timestamp<seconds>" with HMAC-SHA256, keyed with
// its secret; the signature is 64 lower-case hexadecimal digits. The payload does not carry the
// timestamp: the message header has one, but the device reads its clock once for the signature and
// again for the header, so the signed second is that of the header or the one before.
// Replay   this check alone would take a captured handshake again for as long as its second is
//          within the tolerance; the ledger of used signatures (used_signatures.h) refuses it. A
//          capture needs no break of TLS: the device's own log holds the signature.
// Secrecy  an unknown device, a wrong signature and a replay get one answer, after the same work,
//          so that a stranger cannot find out which devices exist. The detail tells them apart.
// Threads  no state.
// Failure  every fault is a code; nothing is thrown for bad input.
#pragma once

#include "backend/devices/device_registry.h"
#include "backend/devices/protocol.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

// The codes of the answer. A device only tests for 0; its log shows the others.
enum HANDSHAKE_CODE : std::int32_t {
    HANDSHAKE_ACCEPTED = 0,
    HANDSHAKE_MALFORMED =
        400, // not a handshake message, or a field is missing, of the wrong type or too long
    HANDSHAKE_BAD_SIGNATURE = 401, // wrong or used before, or the device is not in the registry
    HANDSHAKE_DUPLICATE = 409,     // another device of this name came a moment ago
    HANDSHAKE_CLOCK_OFF = 412,     // the clock of the device differs by more than CLOCK_TOLERANCE_S
    HANDSHAKE_UNSUPPORTED = 415,   // another client identifier, protocol version or method
    HANDSHAKE_UNAVAILABLE = 503,   // the back end cannot record that it accepts it
};

constexpr std::int64_t CLOCK_TOLERANCE_S = 300;
constexpr std::size_t SERVICES_MAX = 64; // more than a device can announce

struct HANDSHAKE_RESULT_T {
    HANDSHAKE_CODE code = HANDSHAKE_MALFORMED;
    std::string detail; // for our log: the fault, or what was left out of an accepted one
    DEVICE_KEY_T device;
    std::vector<SERVICE_T> services; // empty unless accepted
    std::int64_t signed_second = 0;  // which second the signature is of; 0 unless accepted
    std::string proved_secret;       // that it was signed with; empty unless accepted
};

using HandshakeAnswer = std::function<void(HANDSHAKE_RESULT_T)>;

// now: seconds since the epoch.
HANDSHAKE_RESULT_T checkHandshake(const MESSAGE_T &message, const DeviceRegistry &registry,
                                  std::int64_t now);

// The words that go to the device with a code.
const char *handshakeCodeText(HANDSHAKE_CODE code);

std::string signHandshake(std::string_view secret, std::string_view client_id,
                          const DEVICE_KEY_T &device, std::int64_t timestamp);

} // namespace backend
