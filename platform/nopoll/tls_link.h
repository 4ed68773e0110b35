// TLS between a connection and its wire.
//
// Buffering  records go through a BIO over the wire: writing only appends to `tx` (it never blocks,
//            so a message is one system call whatever number of records it takes), reading takes
//            up to 64 KB from the socket into a buffer of OpenSSL's, where select does not see
//            them (pendingTls).
// Ownership  a TLS_LINK_T borrows its wire, which must outlive it.
// Identity   TLS 1.2 or later. With verification on, nothing but the given CA file is trusted,
//            and the certificate must carry the server's name or address. The one exception is
//            a self-signed certificate that is in the CA file itself: it is
//            pinned, so it needs no matching name. It still expires.
#pragma once

#include "platform/nopoll/failure.h"
#include "platform/nopoll/wire.h"
#include "utility/handles.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>

namespace ws {

// A null path means no file; an empty one is a file that cannot be read.
struct TLS_SETTINGS_T {
    HeapText client_certificate;
    HeapText private_key;
    HeapText chain_certificate;
    HeapText ca_certificate;
    bool verify = true;
};

// In this order, so that the method outlives the connection's BIO.
struct TLS_LINK_T {
    std::unique_ptr<BIO_METHOD, Releaser<BIO_meth_free>> method;
    std::unique_ptr<SSL_CTX, Releaser<SSL_CTX_free>> context;
    std::unique_ptr<SSL, Releaser<SSL_free>> ssl;
    bool established = false;
};

// Reads the files and sets up a client link over the wire; server_name is what the certificate must
// carry.
[[nodiscard]] bool prepareTls(TLS_LINK_T &link, const TLS_SETTINGS_T &settings,
                              const char *server_name, WIRE_T &wire, FAILURE_T &failure);
[[nodiscard]] bool shakeHands(TLS_LINK_T &link, WIRE_T &wire, int64_t deadline_ms,
                              FAILURE_T &failure);
enum class TLS_WRITE { DONE, NOT_TAKEN, FAILED };
// Appends all of the bytes to the wire's tx. NOT_TAKEN, and nothing has happened, while only a part
// of a message of the server's TLS has come, such as a session ticket: TLS reads its rest first.
[[nodiscard]] TLS_WRITE writeTls(TLS_LINK_T &link, const WIRE_T &wire,
                                 std::span<const uint8_t> bytes, FAILURE_T &failure);
// Bytes received, 0 for nothing now, -1 for the end.
[[nodiscard]] int readTls(TLS_LINK_T &link, const WIRE_T &wire, std::span<uint8_t> dst,
                          FAILURE_T &failure);
// More than 0 while bytes that TLS has taken from the socket wait for readTls: decrypted ones, or
// of a record that may be incomplete.
[[nodiscard]] int pendingTls(const TLS_LINK_T &link);
// Appends the closing alert.
void shutDownTls(TLS_LINK_T &link);

} // namespace ws
