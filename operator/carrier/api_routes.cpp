#include "operator/carrier/api_routes.h"

#include "operator/settings/url.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

using nlohmann::json;

namespace {

// Members of a request; those that it does not have are left out.
using Members = std::array<std::string_view, 4>;

struct ROUTE_T {
    std::string_view operation;
    std::string_view method;
    std::string_view path; // {MEMBER} is replaced
    Members query{};
    Members body{};
    std::string_view only_with{}; // a member: the row is for requests that have it
};

// clang-format off
constexpr auto ROUTES = std::to_array<ROUTE_T>({
    {"whoami",       "GET",    "/whoami"},
    {"can",          "GET",    "/can", {"device", "service", "verb"}},
    {"status",       "GET",    "/status"},
    {"devices",      "GET",    "/devices", {"pattern", "state", "after", "limit"}},
    {"device",       "GET",    "/devices/{device}"},
    {"services",     "GET",    "/devices/{device}/services"},
    {"connect",      "GET",    "/devices/{device}/services/{service}/connect",
                                   {"keep", "resume"}},
    {"verify",       "POST",   "/devices/{device}/verify", {}, {"user", "password"}},
    {"disconnect",   "POST",   "/devices/{device}/disconnect", {}, {"reason"}},
    {"sessions",     "GET",    "/sessions"},
    {"close",        "DELETE", "/sessions/{session}"},
    {"host-keys",        "POST",   "/devices/{device}/services/{service}/host-keys",
                                   {}, {"keys"}, "keys"},
    {"host-keys",        "GET",    "/devices/{device}/services/{service}/host-keys"},
    {"host-keys-forget", "DELETE", "/devices/{device}/services/{service}/host-keys"},
    {"ssh-certificate",  "POST",   "/devices/{device}/services/{service}/ssh-certificate",
                                   {}, {"public_key"}},
    {"tokens",       "GET",    "/tokens"},
    {"token-make",   "POST",   "/tokens", {}, {"label", "days"}},
    {"token-revoke", "DELETE", "/tokens/{id}"},
});
// clang-format on

std::string valueOf(const json &request, std::string_view member)
{
    const json &value = request.at(std::string(member));
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string filledPath(std::string_view path, const json &request)
{
    std::string filled;
    for (std::size_t open = 0; (open = path.find('{')) != std::string_view::npos;) {
        const std::size_t close = path.find('}', open);
        filled += path.substr(0, open);
        filled += percentEncoded(valueOf(request, path.substr(open + 1, close - open - 1)));
        path.remove_prefix(close + 1);
    }
    return filled.append(path);
}

bool hasMember(const json &request, std::string_view member)
{
    return !member.empty() && request.contains(std::string(member));
}

std::string queryOf(const Members &members, const json &request)
{
    std::string query;
    for (const std::string_view member : members) {
        if (!hasMember(request, member)) continue;
        query += query.empty() ? '?' : '&';
        query.append(member).append("=").append(percentEncoded(valueOf(request, member)));
    }
    return query;
}

std::string bodyOf(const Members &members, const json &request)
{
    if (members.front().empty()) return "";
    json body = json::object();
    for (const std::string_view member : members)
        if (hasMember(request, member)) body[std::string(member)] = request.at(std::string(member));
    return body.dump(-1, ' ', true, json::error_handler_t::replace);
}

} // namespace

API_REQUEST_T apiRequest(const json &request)
{
    const std::string operation = request.value("do", "");
    const auto *const route = std::find_if(ROUTES.begin(), ROUTES.end(), [&](const ROUTE_T &row) {
        return row.operation == operation &&
               (row.only_with.empty() || hasMember(request, row.only_with));
    });
    if (route == ROUTES.end()) throw std::logic_error(operation + " has no route");
    return {std::string(route->method),
            filledPath(route->path, request) + queryOf(route->query, request),
            bodyOf(route->body, request)};
}
