// Certificates made at run time, in a directory that goes away with its owner.
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
    int starts_in_s = -3600;
    int ends_in_s = 3600;
    bool authority = false;
};

// Signed by the issuer, or by itself when there is none.
IDENTITY_T makeIdentity(const CERTIFICATE_REQUEST_T &request, const IDENTITY_T *issuer = nullptr);
std::string pemOf(const IDENTITY_T &identity);

class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    std::string write(const char *name, const std::string &content) const;

private:
    std::string path_;
};
