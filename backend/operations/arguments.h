// What an operation was asked, once its request is parsed.
// Failure  a parser throws OperationFault.
#pragma once

#include "backend/device_key.h"
#include "backend/policy/policy.h"
#include "backend/ssh/public_key.h"
#include "keep/opening.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace backend {

struct OPERATIONS_T;

struct ARGUMENTS_T {
    std::optional<DEVICE_KEY_T> device;
    std::string service;
    std::string session;
    std::string user;
    std::string password; // wiped with the call
    std::string client;   // the account behind a shared port, in the tool's words
    std::string reason;   // the operator's; may be empty
    std::string label;    // of a token
    std::string id;       // of a token, also of one to be made
    std::int64_t days = 0;
    RIGHT right = RIGHT::CONNECT; // that is asked about
    bool is_shared = false;
    std::optional<keep::SessionKey> keep; // of a session that is to be kept
    bool is_resumed = false;              // it has begun already
    std::vector<PUBLIC_KEY_T> host_keys;  // one of a type
    PUBLIC_KEY_T public_key;
    // Of a list
    std::string pattern; // shell pattern; empty: all
    std::string state;   // empty: all
    std::optional<DEVICE_KEY_T> after;
    std::size_t limit = 0;
};

constexpr std::size_t LIST_LIMIT = 1000; // devices in one answer
constexpr std::int64_t TOKEN_DAYS_MAX = 366;

std::string_view verbOf(const nlohmann::json &request);

using ParseFunction = void (*)(const OPERATIONS_T &operations, const PRINCIPAL_T &who,
                               ARGUMENTS_T &arguments, const nlohmann::json &request);
void parseNothing(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const nlohmann::json &request);
void parseList(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
               const nlohmann::json &request);
void parseDevice(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                 const nlohmann::json &request);
void parseDisconnect(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                     const nlohmann::json &request);
void parseService(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const nlohmann::json &request);
void parseConnect(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const nlohmann::json &request);
void parseAccount(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const nlohmann::json &request);
void parseSession(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const nlohmann::json &request);
void parseQuestion(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                   const nlohmann::json &request);
void parseNewToken(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                   const nlohmann::json &request);
void parseHostKeys(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                   const nlohmann::json &request);
void parseKeyToSign(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                    const nlohmann::json &request);
void parseToken(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                const nlohmann::json &request);

} // namespace backend
