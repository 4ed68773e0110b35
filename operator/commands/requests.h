// What connect and forward ask of the back end.
#pragma once

#include "operator/commands/commands.h"

#include <memory>
#include <string>
#include <vector>

struct TARGET_TEXT_T {
    std::string device;
    std::string service; // may be empty
};

// DEVICE or DEVICE/SERVICE; throws std::invalid_argument for another text.
TARGET_TEXT_T parseTarget(const std::string &text);

// The services of an answer by which a device is reached with ssh.
std::vector<std::string> sshServices(const nlohmann::json &services);

// For the target DEVICE/SERVICE, or DEVICE for its only service of ssh, which is asked for; throws
// std::invalid_argument for another text.
nlohmann::json connectRequest(const OPERATOR_OPTIONS_T &options, std::chrono::seconds time);

// The session that a "connect" asks for: a kept one where device and options have it so, else
// a plain one. Takes the ends, as openSession() does.
std::unique_ptr<Session> openUsualSession(const OPERATOR_OPTIONS_T &options,
                                          const nlohmann::json &request, SESSION_ENDS_T &ends,
                                          std::chrono::seconds time);
