// Certificates made at run time, and files that leave nothing behind.
#pragma once

#include "utility/handles.h"

#include <openssl/ssl.h>
#include <string>

using KeyPtr = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, Releaser<X509_free>>;

struct IDENTITY_T {
    KeyPtr key;
    CertificatePtr certificate;
};

struct CERTIFICATE_REQUEST_T {
    const char *subject = "server";
    const char *names = ""; // subjectAltName in OpenSSL's notation; empty for none
    int ends_in_s = 3600;
    bool authority = false;
};

// Signed by the issuer, or by itself when there is none.
IDENTITY_T makeIdentity(const CERTIFICATE_REQUEST_T &request, const IDENTITY_T *issuer = nullptr);

// The path is good for this process, as long as the descriptor is open.
struct PEM_FILE_T {
    UniqueFd file;
    std::string path;
};
PEM_FILE_T pemFile(std::initializer_list<const IDENTITY_T *> identities);
