// What an operator's program sends, from the bytes of its requests to the policy's decision: it is
// read in pieces and at once, finds its path, becomes a request to the operations, and the policy
// decides about the device and service that it names.
// Under test: backend/api/http_request.cpp
// Under test: backend/api/request_target.cpp
// Under test: backend/api/routes.cpp
#include "backend/api/http_request.h"
#include "backend/api/request_target.h"
#include "backend/api/routes.h"
#include "backend/policy/policy.h"
#include "tests/fuzz/fuzz.h"

#include <nlohmann/json.hpp>

using namespace backend;
using nlohmann::json;

namespace {

constexpr const char *POLICY = R"({"operators": [{"name": "anna"}],
  "device_groups": {"some": {"names": ["gw-*"]}},
  "grants": [{"name": "look", "who": ["anna"], "devices": ["some"], "services": ["ssh*"],
              "verbs": ["list", "connect"]}]})";

bool isPlain(const std::string &text)
{
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; });
}

void requireSoundRequest(const ROUTE_T &route, const json &request)
{
    REQUIRE(request.is_object() && request.at("do") == route.verb);
    // No member that the path does not take gets through, so none that only the other door has.
    for (const char *name : {"shared", "client"})
        REQUIRE(!request.contains(name));
    REQUIRE(request.contains("device") == (route.pattern.find("{device}") != route.pattern.npos ||
                                           route.verb == std::string_view("can")));
    if (!request.contains("device")) return;
    static const PolicyPtr GRANTS = parsePolicy(POLICY);
    const std::string device = request.at("device");
    const std::string service = request.value("service", "");
    REQUIRE(isPlain(device));
    REQUIRE(!device.empty() || route.verb == std::string_view("can"));
    const DEVICE_KEY_T key{"product", device};
    PRINCIPAL_T anna;
    anna.door = DOOR::API;
    anna.name = "anna";
    const bool is_allowed =
        decide(GRANTS.get(), anna, RIGHT::CONNECT, {&key, nullptr, service}).isAllowed();
    REQUIRE(!is_allowed ||
            (device.starts_with("gw-") && (service.empty() || service.starts_with("ssh"))));
    REQUIRE(!decide(GRANTS.get(), anna, RIGHT::MANAGE, {&key, nullptr, service}).isAllowed());
}

void requireSound(const HTTP_REQUEST_T &request)
{
    REQUIRE(request.body.size() <= HTTP_BODY_MAX);
    REQUIRE(!request.fields.contains("authorization"));
    const auto found = findRoute(request);
    if (const auto *refusal = std::get_if<REFUSAL_T>(&found)) {
        REQUIRE(refusal->status >= 400 && !refusal->text.empty());
        REQUIRE((refusal->status == 405) == !refusal->allow.empty());
        return;
    }
    const ROUTE_T *const route = std::get<MATCH_T>(found).route;
    if (route == nullptr || route->verb == nullptr) return;
    const auto made = operationRequest(*route, request);
    if (const auto *document = std::get_if<json>(&made)) requireSoundRequest(*route, *document);
}

// Each request as text, so that two ways of reading can be compared.
std::string readAll(std::string_view bytes, std::size_t piece)
{
    RequestReader reader;
    std::string seen;
    bool is_in_body = false;
    for (;;) {
        const READ step = is_in_body ? reader.readBody() : reader.readHeader();
        if (step == READ::FAULT) return seen + "fault";
        if (step == READ::MORE) {
            if (bytes.empty()) return seen + "more";
            reader.feed(bytes.substr(0, piece));
            bytes.remove_prefix(std::min(piece, bytes.size()));
        } else if (!is_in_body) {
            is_in_body = true;
        } else {
            const HTTP_REQUEST_T &request = reader.request();
            requireSound(request);
            seen += request.method + " " + request.target + " " + request.token + request.body;
            reader.next();
            is_in_body = false;
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes = viewOf(data, size);
    const std::string at_once = readAll(bytes, std::string_view::npos);
    // How much of a header is refused depends on where it is cut, so only small ones compare.
    if (size < HTTP_HEADER_MAX / 2) REQUIRE(readAll(bytes, 7) == at_once);
    return 0;
}
