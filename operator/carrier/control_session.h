// A session through the control socket: its client is a socket that goes to the back end with the
// request.
#pragma once

#include "operator/carrier/session.h"

#include <chrono>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

// A socket for both ways goes to the back end as it is, so that nothing is copied here; for other
// ends it is one of a pair.
std::unique_ptr<Session> openControlSession(const std::string &path, const nlohmann::json &request,
                                            SESSION_ENDS_T &ends, std::chrono::seconds time);
