// The paths of the interface: one table says for each what it asks of the operations, and how the
// request to them is made from path, query and body. The requests are those of the control socket.
// Threads  no shared state.
// Failure  what does not fit the table is a refusal with its status; nothing is thrown but for want
//          of memory.
#pragma once

#include "backend/api/http_request.h"
#include "backend/operations/fault.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include <nlohmann/json_fwd.hpp>

namespace backend {

enum class SERVES {
    OPERATION,
    DOCUMENT, // of the interface itself; for strangers, too
    EVENTS,
    CONNECT,
};

enum class MEMBER { TEXT, NUMBER, TEXTS, FLAG };

struct MEMBER_T {
    const char *name;
    MEMBER kind;
    bool is_required;
};

struct ROUTE_T {
    std::string_view method;
    std::string_view pattern; // "{device}" stands for one segment, a member of the request
    const char *verb;         // null: none of the operations
    SERVES serves;
    std::span<const MEMBER_T> query;
    std::span<const MEMBER_T> body; // of a JSON object; none: no body is taken
    bool has_tag;                   // its answer can be asked for conditionally
};

struct REFUSAL_T {
    unsigned status;
    std::string text;
    std::string allow; // of 405: the methods that there are
};

struct MATCH_T {
    const ROUTE_T *route;
    bool is_head = false;    // a GET whose answer is not sent
    bool is_options = false; // only `allow` is asked for
    std::string allow;
};

// The route of a request whose header has come.
std::variant<MATCH_T, REFUSAL_T> findRoute(const HTTP_REQUEST_T &request);

// {"do":VERB,...}. The body has come.
std::variant<nlohmann::json, REFUSAL_T> operationRequest(const ROUTE_T &route,
                                                         const HTTP_REQUEST_T &http);

// Overwrites what is ours of a password; the buffers of the JSON library's parser are not.
void wipeTexts(nlohmann::json &request);

std::span<const ROUTE_T> allRoutes();

} // namespace backend
