// What the administrator does with devices: each command is one change of the file of devices,
// whole or not at all, which is refused when the back end could not load the result.
// Output   what was done goes to standard output; warnings to standard error. A secret is printed
//          only where it was asked for.
// Failure  std::runtime_error or, for arguments that cannot be meant, std::invalid_argument.
#pragma once

#include "backend/admin/admin.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace backend {

using LABEL_CHANGE_T = std::pair<std::string, std::string>; // name and value

// Which devices are meant: those named, and those that have all these labels (patterns of values).
struct MEANT_T {
    std::vector<std::string> names;
    std::vector<std::string> where; // "NAME=PATTERN"
};

// What a gateway is told beside its own identity.
struct GATEWAY_T {
    std::string host;    // empty: the first name in the certificate
    std::string ca_path; // on the gateway
};

struct ADD_T {
    std::vector<std::string> names;
    std::string product;
    std::vector<std::string> labels; // "NAME=VALUE"
    bool reads_secret = false;       // from standard input, for one device
    bool prints_settings = false;
    GATEWAY_T gateway;
};
void addDevices(const INSTALLATION_T &installation, const ADD_T &add);

struct LIST_T {
    std::string pattern;
    std::vector<std::string> where;
    bool is_json = false;
};
void listDevices(const INSTALLATION_T &installation, const LIST_T &list);

struct SHOW_T {
    std::string name;
    bool prints_secret = false;
    bool prints_settings = false;
    GATEWAY_T gateway;
};
void showDevice(const INSTALLATION_T &installation, const SHOW_T &show);

struct CHANGE_T {
    MEANT_T meant;
    bool is_dry = false; // say only what would happen
    bool is_sure = false;
};
// More than one only if it is sure.
void removeDevices(const INSTALLATION_T &installation, const CHANGE_T &change);

struct ROTATE_T {
    CHANGE_T change;
    std::string keep_old = "7d";
    bool prints_settings = false;
    GATEWAY_T gateway;
};
// Refused, unless it is sure, where an earlier old secret is still valid: a gateway may use it.
void rotateSecrets(const INSTALLATION_T &installation, const ROTATE_T &rotate);

// arguments: names of devices, "LABEL=VALUE", and "LABEL-" to take one away.
void labelDevices(const INSTALLATION_T &installation, const CHANGE_T &change,
                  const std::vector<std::string> &arguments);

} // namespace backend
