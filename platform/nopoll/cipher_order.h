// The order in which a client offers its ciphers: the one that costs this processor least first.
// All are equally safe; a server without a preference of its own takes the first it supports.
#pragma once

#include <openssl/ssl.h>
#include <string_view>

namespace ws {

enum class AES_UNIT { THERE, MISSING, UNKNOWN };

// What OPENSSL_info(OPENSSL_INFO_CPU_SETTINGS) says of AES instructions: of this machine, with what
// OPENSSL_ia32cap or OPENSSL_armcap take from it.
AES_UNIT aesUnitOf(std::string_view cpu_settings) noexcept;
// Moves one kind of cipher with forward secrecy to the front of what the context offers anyway:
// AES-128-GCM, or ChaCha20-Poly1305 where AES has no instructions. Where nothing is known of the
// processor, and where OpenSSL refuses, the order stays as it is.
void orderCiphers(SSL_CTX *context);

} // namespace ws
