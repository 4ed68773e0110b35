// One way for requests, over two carriers: the local control socket and HTTPS. Requests and
// answers are those of backend/operations/operations.h on both.
// Failure  RequestError.
// Limits   each answer has a time and ANSWER_MAX bytes.
// Threads  a back end can be used by several threads.
#pragma once

#include "operator/carrier/request_error.h"
#include "operator/carrier/session.h"
#include "operator/settings/server.h"
#include "utility/handles.h"

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

struct HTTPS_CLIENT_T;

struct BACK_END_T {
    SERVER_T server;
    std::shared_ptr<HTTPS_CLIENT_T> https; // null: over the control socket
};

BACK_END_T backEndAt(const SERVER_T &server);

// For a request with one answer.
nlohmann::json ask(const BACK_END_T &back_end, const nlohmann::json &request,
                   std::chrono::seconds time);

// Opens the session that the request, a "connect", asks for. The session takes the ends; when it
// cannot be opened, the caller still has them.
std::unique_ptr<Session> openSession(const BACK_END_T &back_end, const nlohmann::json &request,
                                     SESSION_ENDS_T &ends, std::chrono::seconds time);
