// What operators can ask for: one table, behind every door. A request is a JSON object whose "do"
// names the operation:
//   {"do":"devices"}                                    {"ok":true,"devices":[...]}
//   {"do":"services","device":D}                        {"ok":true,"services":[...]}
//   {"do":"sessions"}                                   {"ok":true,"sessions":[...]}
//   {"do":"status"}                                     {"ok":true,"version":V,"metrics":[...]}
//   {"do":"verify","device":D,"user":U,"password":P}    {"ok":true,"code":0,"message":"..."}
//   {"do":"connect","device":D,"service":S}             {"ok":true,"session":"..."}, and when the
//        session ends {"ended":"REASON","whole":true,"bytes_up":N,"bytes_down":N}
//        optional: "shared":true and "client":TEXT, for a port of the operator's that serves
//        others; TEXT is the account that uses it
//   {"do":"disconnect","device":D}                      {"ok":true}
//        optional: "reason":TEXT
//   {"do":"close","session":N}                          {"ok":true}
// A request that fails is answered with {"ok":false,"error":"..."}. D is DEVICE_NAME, or
// PRODUCT_KEY:DEVICE_NAME; N a session's number.
// Each goes the same way: it is parsed, the policy decides, it is recorded where that is due, and
// only then it runs.
// Ownership  a call belongs to its door, and to what still has to answer it.
// Threads    the thread of the io_context.
// Failure    every fault is an answer; nothing is thrown.
#pragma once

#include "backend/directory/directory.h"
#include "backend/policy/policy.h"
#include "backend/sessions/session_table.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace backend {

// What operations work on. All of it outlives them.
struct OPERATIONS_T {
    DIRECTORY_T &directory;
    SessionTablePtr sessions;
};

// What an operation was asked, once it is parsed.
struct ARGUMENTS_T {
    std::optional<DEVICE_KEY_T> device;
    std::string service;
    std::string session;
    std::string user;
    std::string password; // wiped with the call
    std::string client;   // the account behind a shared port, in the tool's words
    std::string reason;   // the operator's; may be empty
    bool is_shared = false;
};

struct CALL_T {
    CALL_T() = default;
    CALL_T(const CALL_T &) = delete;
    CALL_T &operator=(const CALL_T &) = delete;
    ~CALL_T();

    PRINCIPAL_T who;
    // Of the door. The last answer of a call is its end.
    std::function<void(const nlohmann::json &line, bool is_last)> answer;
    // The client to be carried; null when none that can be used came with the request.
    std::function<SessionClientPtr()> take_client;
    ARGUMENTS_T arguments;
    std::weak_ptr<SESSION_T> session; // of "connect"
};
using CallPtr = std::shared_ptr<CALL_T>;

void runOperation(OPERATIONS_T &operations, const CallPtr &call, const nlohmann::json &request);

} // namespace backend
