// What connect and forward ask of the back end.
#pragma once

#include "operator/control_client.h"

#include <string>

// For DEVICE/SERVICE; throws std::invalid_argument for another text.
nlohmann::json connectRequest(const std::string &target);

// The last answer of a session: how it ended. Without one the back end has gone.
nlohmann::json endOf(CONTROL_CLIENT_T &client, std::chrono::seconds time);
