// The handshake: the payload that proves the device's identity and announces its services, and the
// reading of the answer.
//
// Signature  HMAC-SHA256, keyed with the device secret, over client id, device name, product key
//            and the time in seconds; 64 lower-case hexadecimal characters. A secret of more than
//            63 characters gives 64 zeros.
// Threads    the proxy thread alone: the signature is in a static buffer until the next call.
#pragma once

#include "utility/handles.h"
#include "utility/list.h"

#include <cstdint>
#include <span>

const char *calc_sign(const char *client_id, const char *device_name, const char *product_key,
                      const char *device_secret);

// Returns the payload's length, or -1 when it does not fit.
int spliceProxyProtocolHandShakePayload(std::span<char> dst, const char *product_key,
                                        const char *device_name, const char *device_secret,
                                        const char *services_info);

// The JSON array of the catalogue's services, in list order; of one SSH service on this machine
// when the list is empty. Null when there is no memory.
HeapText spliceLocalServiceInfoContent(const LIST_LINK_T *service_list);

// 0 and the code (0 = accepted), or -1 when the payload holds no numeric "code". The payload is
// followed by a NUL.
[[nodiscard]] int parseProxyProtocolHandShakeResponse(const char *payload, std::int32_t length,
                                                      std::int32_t *code);
