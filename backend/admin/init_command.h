// Makes an installation in a folder: certificates, an operator, an empty list of devices and the
// options that lead to them, so that `remote_access_backend --config DIRECTORY/backend.conf` runs.
// Failure  std::runtime_error; the folder is as it was then.
#pragma once

#include <string>
#include <vector>

namespace backend {

struct INIT_T {
    std::string directory;          // made where there is none
    std::vector<std::string> names; // of the back end, for gateways and operators
    std::string operator_name;      // empty: the account
    std::string listen;             // empty: all addresses
    std::string api;                // empty: all addresses
    bool has_api = true;            // for operators on other machines
};
void makeInstallation(const INIT_T &init);

} // namespace backend
