#include "backend/api/routes.h"

#include "backend/api/request_target.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include <nlohmann/json.hpp>
#include <strings.h>

namespace backend {

using nlohmann::json;

constexpr std::string_view BASE = "/api/v1";

// ---- the table

constexpr std::array DEVICES_QUERY{
    MEMBER_T{"pattern", MEMBER::TEXT, false}, MEMBER_T{"state", MEMBER::TEXT, false},
    MEMBER_T{"after", MEMBER::TEXT, false}, MEMBER_T{"limit", MEMBER::NUMBER, false}};
constexpr std::array CAN_QUERY{MEMBER_T{"device", MEMBER::TEXT, true},
                               MEMBER_T{"service", MEMBER::TEXT, false},
                               MEMBER_T{"verb", MEMBER::TEXT, false}};
constexpr std::array CONNECT_QUERY{MEMBER_T{"keep", MEMBER::TEXT, false},
                                   MEMBER_T{"resume", MEMBER::FLAG, false}};
constexpr std::array VERIFY_BODY{MEMBER_T{"user", MEMBER::TEXT, true},
                                 MEMBER_T{"password", MEMBER::TEXT, true}};
constexpr std::array REASON_BODY{MEMBER_T{"reason", MEMBER::TEXT, false}};
constexpr std::array KEYS_BODY{MEMBER_T{"keys", MEMBER::TEXTS, true}};
constexpr std::array PUBLIC_KEY_BODY{MEMBER_T{"public_key", MEMBER::TEXT, true}};
constexpr std::array TOKEN_BODY{MEMBER_T{"label", MEMBER::TEXT, true},
                                MEMBER_T{"days", MEMBER::NUMBER, false}};

constexpr auto OPERATION = SERVES::OPERATION;

constexpr auto ROUTES = std::to_array<ROUTE_T>({
    {"GET", "/openapi.json", nullptr, SERVES::DOCUMENT, {}, {}, true},
    {"GET", "/whoami", "whoami", OPERATION, {}, {}, false},
    {"GET", "/can", "can", OPERATION, CAN_QUERY, {}, false},
    {"GET", "/status", "status", OPERATION, {}, {}, false},
    {"GET", "/devices", "devices", OPERATION, DEVICES_QUERY, {}, true},
    {"GET", "/devices/{device}", "device", OPERATION, {}, {}, true},
    {"GET", "/devices/{device}/services", "services", OPERATION, {}, {}, true},
    {"GET",
     "/devices/{device}/services/{service}/connect",
     "connect",
     SERVES::CONNECT,
     CONNECT_QUERY,
     {},
     false},
    {"POST", "/devices/{device}/verify", "verify", OPERATION, {}, VERIFY_BODY, false},
    {"POST", "/devices/{device}/disconnect", "disconnect", OPERATION, {}, REASON_BODY, false},
    {"POST", "/devices/{device}/open", "open", OPERATION, {}, {}, false},
    {"POST", "/devices/{device}/close-access", "close-access", OPERATION, {}, {}, false},
    {"GET",
     "/devices/{device}/services/{service}/host-keys",
     "host-keys",
     OPERATION,
     {},
     {},
     false},
    {"POST",
     "/devices/{device}/services/{service}/host-keys",
     "host-keys",
     OPERATION,
     {},
     KEYS_BODY,
     false},
    {"DELETE",
     "/devices/{device}/services/{service}/host-keys",
     "host-keys-forget",
     OPERATION,
     {},
     {},
     false},
    {"POST",
     "/devices/{device}/services/{service}/ssh-certificate",
     "ssh-certificate",
     OPERATION,
     {},
     PUBLIC_KEY_BODY,
     false},
    {"GET", "/sessions", "sessions", OPERATION, {}, {}, true},
    {"DELETE", "/sessions/{session}", "close", OPERATION, {}, {}, false},
    {"GET", "/tokens", "tokens", OPERATION, {}, {}, false},
    {"POST", "/tokens", "token-make", OPERATION, {}, TOKEN_BODY, false},
    {"DELETE", "/tokens/{id}", "token-revoke", OPERATION, {}, {}, false},
    {"GET", "/events", nullptr, SERVES::EVENTS, {}, {}, false},
});

std::span<const ROUTE_T> allRoutes()
{
    return ROUTES;
}

// ---- finding a row

// Without the base; nothing when the path is not below it.
static std::optional<TARGET_PARTS_T> partsBelowBase(std::string_view target)
{
    if (!target.starts_with(BASE) || target.substr(BASE.size(), 1) != "/") return std::nullopt;
    return parseTarget(target.substr(BASE.size()));
}

template <class Visit> static void eachSegment(std::string_view pattern, Visit visit)
{
    std::size_t index = 0;
    while (!pattern.empty()) {
        pattern.remove_prefix(1);
        const std::string_view segment = pattern.substr(0, pattern.find('/'));
        pattern.remove_prefix(segment.size());
        visit(index++, segment);
    }
}

static bool isName(std::string_view segment)
{
    return segment.starts_with('{');
}

static bool matches(std::string_view pattern, const std::vector<std::string> &segments)
{
    const auto count = std::count(pattern.begin(), pattern.end(), '/');
    if (static_cast<std::size_t>(count) != segments.size()) return false;
    bool is_same = true;
    eachSegment(pattern, [&](std::size_t index, std::string_view wanted) {
        const std::string &given = segments[index];
        is_same = is_same && (isName(wanted) ? !given.empty() : given == wanted);
    });
    return is_same;
}

static std::string allowOf(const std::vector<std::string> &segments)
{
    std::string allow;
    for (const ROUTE_T &route : ROUTES) {
        if (!matches(route.pattern, segments)) continue;
        allow += std::string(route.method) + ", ";
        if (route.method == "GET" && route.serves != SERVES::CONNECT) allow += "HEAD, ";
    }
    return allow + "OPTIONS";
}

static const ROUTE_T *rowOf(std::string_view method, const std::vector<std::string> &segments)
{
    for (const ROUTE_T &route : ROUTES)
        if (route.method == method && matches(route.pattern, segments)) return &route;
    return nullptr;
}

std::variant<MATCH_T, REFUSAL_T> findRoute(const HTTP_REQUEST_T &request)
{
    const std::string_view path =
        std::string_view(request.target).substr(0, request.target.find('?'));
    const bool is_options = request.method == "OPTIONS";
    if (is_options && path == "*")
        return MATCH_T{nullptr, false, true, "GET, HEAD, POST, DELETE, OPTIONS"};
    if (!path.starts_with('/')) return REFUSAL_T{400, "the target of the request is malformed", {}};
    const auto parts = partsBelowBase(path);
    const auto whole = partsBelowBase(request.target);
    if (!parts && path.starts_with(std::string(BASE) + "/"))
        return REFUSAL_T{400, "the path is malformed", {}};
    if (!parts)
        return REFUSAL_T{404, "no such path; those of this interface begin with /api/v1/", {}};
    const std::string allow = allowOf(parts->segments);
    if (allow == "OPTIONS")
        return REFUSAL_T{404, "no such path; /api/v1/openapi.json lists them", {}};
    if (is_options) return MATCH_T{nullptr, false, true, allow};
    const bool is_head = request.method == "HEAD";
    const ROUTE_T *const route = rowOf(is_head ? "GET" : request.method, parts->segments);
    if (route == nullptr || (is_head && route->serves == SERVES::CONNECT))
        return REFUSAL_T{405, "this path takes " + allow, allow};
    if (!whole) return REFUSAL_T{400, "the query is malformed", {}};
    return MATCH_T{route, is_head, false, allow};
}

// ---- the request

static const MEMBER_T *findMember(std::span<const MEMBER_T> members, std::string_view name)
{
    for (const MEMBER_T &member : members)
        if (name == member.name) return &member;
    return nullptr;
}

static std::string listOf(std::span<const MEMBER_T> members)
{
    std::string names;
    for (const MEMBER_T &member : members)
        names += (names.empty() ? "" : ", ") + std::string(member.name);
    return names.empty() ? "none" : names;
}

static const char *missingIn(std::span<const MEMBER_T> members, const json &request)
{
    for (const MEMBER_T &member : members)
        if (member.is_required && !request.contains(member.name)) return member.name;
    return nullptr;
}

static REFUSAL_T bad(std::string text)
{
    return {400, std::move(text), {}};
}

static std::optional<REFUSAL_T> takeQuery(const ROUTE_T &route, const TARGET_PARTS_T &parts,
                                          json &request)
{
    for (const auto &[name, value] : parts.query) {
        const MEMBER_T *const member = findMember(route.query, name);
        if (member == nullptr)
            return bad("the query has an unknown \"" + name + "\"; it takes " +
                       listOf(route.query));
        if (member->kind == MEMBER::TEXT) {
            request[name] = value;
            continue;
        }
        if (member->kind == MEMBER::FLAG) {
            if (value != "true" && value != "false")
                return bad("\"" + name + "\" is neither true nor false");
            request[name] = value == "true";
            continue;
        }
        std::uint32_t number = 0;
        const char *const end = value.data() + value.size();
        const auto [stop, error] = std::from_chars(value.data(), end, number);
        if (error != std::errc() || stop != end) return bad("\"" + name + "\" is no number");
        request[name] = number;
    }
    const char *const missing = missingIn(route.query, request);
    if (missing != nullptr) return bad(std::string("the query has no \"") + missing + "\"");
    return std::nullopt;
}

static bool isOfKind(const json &value, MEMBER kind)
{
    switch (kind) {
    case MEMBER::TEXT:
        return value.is_string();
    case MEMBER::NUMBER:
        return value.is_number_unsigned();
    case MEMBER::FLAG:
        return value.is_boolean();
    case MEMBER::TEXTS:
        return value.is_array() && std::all_of(value.begin(), value.end(),
                                               [](const json &text) { return text.is_string(); });
    }
    return false;
}

void wipeTexts(json &request)
{
    auto *const members = request.get_ptr<json::object_t *>();
    if (members == nullptr) return;
    for (auto &[name, value] : *members) {
        auto *const text = value.get_ptr<std::string *>();
        if (text != nullptr) explicit_bzero(text->data(), text->size());
    }
}

struct WipedJson {
    explicit WipedJson(json of) : document(std::move(of)) {}
    WipedJson(const WipedJson &) = delete;
    WipedJson &operator=(const WipedJson &) = delete;
    ~WipedJson()
    {
        wipeTexts(document);
    }
    json document;
};

static std::optional<REFUSAL_T> takeBody(const ROUTE_T &route, const HTTP_REQUEST_T &http,
                                         json &request)
{
    WipedJson body{http.body.empty() ? json::object() : json::parse(http.body, nullptr, false)};
    if (!body.document.is_object()) return bad("the body is no JSON object");
    for (const auto &[name, value] : body.document.items()) {
        const MEMBER_T *const member = findMember(route.body, name);
        if (member == nullptr)
            return bad("the body has an unknown \"" + name + "\"; it takes " + listOf(route.body));
        if (!isOfKind(value, member->kind))
            return bad("\"" + name + "\" in the body is of the wrong type");
        request[name] = value;
    }
    const char *const missing = missingIn(route.body, request);
    if (missing != nullptr) return bad(std::string("the body has no \"") + missing + "\"");
    return std::nullopt;
}

std::variant<json, REFUSAL_T> operationRequest(const ROUTE_T &route, const HTTP_REQUEST_T &http)
{
    const auto parts = partsBelowBase(http.target);
    if (!parts || route.verb == nullptr) return bad("the target of the request is malformed");
    json request = {{"do", route.verb}};
    eachSegment(route.pattern, [&](std::size_t index, std::string_view segment) {
        if (isName(segment))
            request[std::string(segment.substr(1, segment.size() - 2))] = parts->segments[index];
    });
    auto refusal = takeQuery(route, *parts, request);
    if (!refusal) refusal = takeBody(route, http, request);
    if (refusal) return std::move(*refusal);
    return request;
}

} // namespace backend
