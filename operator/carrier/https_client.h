// Requests to a back end over HTTPS. A connection is kept for the next request.
// Ownership  the client owns the idle connection.
// Threads    any; requests of several threads have a connection each.
// Limits     an answer has ANSWER_MAX bytes at most, and takes no longer than given. A redirect is
//            not followed.
// Failure    RequestError: is_unreachable unless the back end itself has refused.
#pragma once

#include "operator/settings/server.h"

#include <chrono>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

struct HTTPS_CLIENT_T;
struct HTTPS_CONNECTION_T;
using HttpsClientPtr = std::shared_ptr<HTTPS_CLIENT_T>;

HttpsClientPtr makeHttpsClient(const SERVER_T &server);

nlohmann::json askHttps(HTTPS_CLIENT_T &client, const nlohmann::json &request,
                        std::chrono::seconds time);

// ---- for sessions, which take a connection over

// The idle one, or a new one.
std::unique_ptr<HTTPS_CONNECTION_T> takeConnection(HTTPS_CLIENT_T &client,
                                                   std::chrono::steady_clock::time_point end);

// Of the server, with the header that proves who asks; empty without a token.
const std::string &authorizationOf(const HTTPS_CLIENT_T &client);
std::string hostHeaderOf(const HTTPS_CLIENT_T &client);
std::string targetOf(const HTTPS_CLIENT_T &client, const std::string &target);

struct HTTPS_ANSWER_T {
    unsigned status = 0;
    std::string reason;
    std::string type; // Content-Type
    std::string location;
    std::string retry_after;
    std::string body;
};

// Throws what the answer means if it is not one of success.
void checkAnswer(const HTTPS_CLIENT_T &client, const HTTPS_ANSWER_T &answer);
