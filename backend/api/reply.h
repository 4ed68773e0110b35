// An answer of the interface, before it is sent.
// Threads  no shared state.
#pragma once

#include "backend/operations/fault.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace backend {

constexpr unsigned STATUS_UPGRADE_REQUIRED = 426;

struct REPLY_T {
    unsigned status = 200;
    std::string content_type; // empty: there is no body
    std::string body;
    std::vector<std::pair<const char *, std::string>> fields; // beside those that all have
    bool is_head = false;                                     // the body is not sent
};

struct HTTP_REQUEST_T;

REPLY_T jsonReply(const nlohmann::json &document);
// RFC 9457, with the kind of the fault. status 0: the kind's own.
REPLY_T problemReply(FAULT fault, const std::string &detail, unsigned status = 0);
// Of an operation: {"ok":...} becomes a document or a problem.
REPLY_T operationReply(const nlohmann::json &answer);

// Gives it a tag, and leaves the body out where the client has it already.
void tagReply(REPLY_T &reply, const HTTP_REQUEST_T &request);

// The head as it is sent, with the body behind it.
std::string replyText(const REPLY_T &reply, bool keeps_alive);
// Of an answer that ends with its connection.
std::string streamHead(const char *content_type);

} // namespace backend
