// One request to the back end over its control socket; backend/operations/operations.h describes
// requests and answers.
// Failure  RequestError: the back end cannot be reached, did not answer in time, or has refused
//          with these words.
// Limits   a connection, a request and each answer have a time, an answer ANSWER_MAX bytes.
// Threads  each client is one thread's.
#pragma once

#include "operator/carrier/request_error.h"
#include "utility/handles.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

constexpr std::size_t ANSWER_MAX = std::size_t{64} << 20;
// For the end of a session, which may take days.
constexpr std::chrono::seconds NO_LIMIT{-1};

struct CONTROL_CLIENT_T {
    UniqueFd socket;
    std::string path;
    std::string received; // behind the last line taken
};

// Sends the request, with a descriptor if one is given; the caller keeps its own copy of it.
// Takes at most as long as given.
CONTROL_CLIENT_T openRequest(const std::string &path, const nlohmann::json &request,
                             std::chrono::seconds time, int fd = -1);

// The next line; none at the end of the answers. A refusal is thrown.
std::optional<nlohmann::json> nextAnswer(CONTROL_CLIENT_T &client, std::chrono::seconds time);

// Of a request that has but one.
nlohmann::json onlyAnswer(CONTROL_CLIENT_T &client, std::chrono::seconds time);
