// The host keys of a device's service: what the back end has recorded, and what the device shows.
// Failure  RequestError; a key that has changed is one, in the back end's words.
#pragma once

#include "operator/commands/commands.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// "TYPE BASE64". service: a request of "connect", for its device and service. A back end that keeps
// no keys answers RequestError with is_not_built set.
std::vector<std::string> recordedHostKeys(const OPERATOR_OPTIONS_T &options,
                                          const nlohmann::json &service);

// Asks the device by sessions of its own, and has the back end record or compare what it shows.
std::vector<std::string> learnHostKeys(const OPERATOR_OPTIONS_T &options,
                                       const nlohmann::json &service);

// A line of a file of known hosts.
std::string knownHostLine(const std::string &name, const std::string &key);
