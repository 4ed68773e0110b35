// The certificates of an installation of one's own: an authority that only this back end uses, and
// the back end's certificate. Elliptic curve P-256, PEM, valid for CERTIFICATE_DAYS.
// Failure  std::runtime_error.
#pragma once

#include <string>
#include <vector>

namespace backend {

constexpr long CERTIFICATE_DAYS = 3650;

struct IDENTITY_TEXT_T {
    std::string certificate;
    std::string key;
};

struct INSTALLATION_CERTIFICATES_T {
    IDENTITY_TEXT_T authority;
    IDENTITY_TEXT_T server;
};

// names: host names and addresses, at least one.
INSTALLATION_CERTIFICATES_T makeCertificates(const std::vector<std::string> &names);

bool isHostName(const std::string &name);
bool isAddress(const std::string &name);

// The names in the first certificate of a file, without those that mean each machine itself.
std::vector<std::string> certificateNames(const std::string &path);

} // namespace backend
