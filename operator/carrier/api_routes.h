// How a request of the control socket is asked over HTTPS: one table.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>

constexpr char API_ROOT[] = "/api/v1";

struct API_REQUEST_T {
    std::string method;
    std::string target; // behind API_ROOT
    std::string body;   // JSON; may be empty
};

// Throws std::logic_error for a request that the table does not have.
API_REQUEST_T apiRequest(const nlohmann::json &request);
