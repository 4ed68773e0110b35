// The built-in root certificate, for a gateway whose configuration names no certificate file.
#pragma once

constexpr char DEFAULT_CERT_PATH[] = "/brimlock/gateway/build/config/brimlock_remote_access.pem";

// Makes sure that the file exists: an existing one is left as it is, whatever it holds, otherwise
// the built-in certificate (PEM, 1282 bytes) is written. 0, or -1 when it was not written whole.
[[nodiscard]] int writeDefaultCert(const char *path);
