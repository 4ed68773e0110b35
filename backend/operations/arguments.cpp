#include "backend/operations/arguments.h"

#include "backend/devices/protocol.h"
#include "backend/observe/uuid.h"
#include "backend/operations/access.h"
#include "backend/operations/fault.h"
#include "backend/operations/operations.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::size_t LABEL_MAX = 64;
constexpr std::size_t PATTERN_MAX = 255; // as in the policy: to compare with it takes time

static std::string optionalText(const json &request, const char *name)
{
    const auto found = request.find(name);
    if (found == request.end()) return {};
    if (!found->is_string())
        throw OperationFault(FAULT::BAD_REQUEST,
                             std::string("\"") + name + "\" of the request is no text");
    return found->get<std::string>();
}

static std::string textOf(const json &request, const char *name)
{
    std::string text = optionalText(request, name);
    if (text.empty())
        throw OperationFault(FAULT::BAD_REQUEST,
                             std::string("the request has no \"") + name + "\"");
    return text;
}

static std::int64_t numberOf(const json &request, const char *name, std::int64_t usual,
                             std::int64_t most)
{
    const auto found = request.find(name);
    if (found == request.end()) return usual;
    if (!found->is_number_unsigned() || found->get<std::uint64_t>() < 1 ||
        found->get<std::uint64_t>() > static_cast<std::uint64_t>(most))
        throw OperationFault(FAULT::BAD_REQUEST, std::string("\"") + name +
                                                     "\" of the request must be 1 to " +
                                                     std::to_string(most));
    return found->get<std::int64_t>();
}

static bool flagOf(const json &request, const char *name)
{
    const auto found = request.find(name);
    if (found == request.end()) return false;
    if (!found->is_boolean())
        throw OperationFault(FAULT::BAD_REQUEST,
                             std::string("\"") + name + "\" of the request is no true or false");
    return found->get<bool>();
}

std::string_view verbOf(const json &request)
{
    if (!request.is_object())
        throw OperationFault(FAULT::BAD_REQUEST, "the request is no JSON object");
    const auto found = request.find("do");
    if (found == request.end() || !found->is_string() ||
        found->get_ref<const std::string &>().empty())
        throw OperationFault(FAULT::BAD_REQUEST, "the request has no \"do\"");
    return found->get_ref<const std::string &>();
}

void parseNothing(const OPERATIONS_T & /*operations*/, const PRINCIPAL_T & /*who*/,
                  ARGUMENTS_T & /*arguments*/, const json & /*request*/)
{
}

void parseList(const OPERATIONS_T & /*operations*/, const PRINCIPAL_T & /*who*/,
               ARGUMENTS_T &arguments, const json &request)
{
    static constexpr auto STATES =
        std::to_array<std::string_view>({"", "connected", "not answering", "away"});
    arguments.pattern = optionalText(request, "pattern");
    if (arguments.pattern.size() > PATTERN_MAX)
        throw OperationFault(FAULT::BAD_REQUEST, "\"pattern\" of the request has at most " +
                                                     std::to_string(PATTERN_MAX) + " bytes");
    arguments.state = optionalText(request, "state");
    if (std::find(STATES.begin(), STATES.end(), arguments.state) == STATES.end())
        throw OperationFault(FAULT::BAD_REQUEST,
                             "\"state\" must be \"connected\", \"not answering\" or \"away\"");
    arguments.limit = static_cast<std::size_t>(numberOf(request, "limit", LIST_LIMIT, LIST_LIMIT));
    const std::string after = optionalText(request, "after");
    const std::size_t colon = after.find(':');
    if (after.empty()) return;
    if (colon == std::string::npos)
        throw OperationFault(FAULT::BAD_REQUEST, "\"after\" must be PRODUCT_KEY:DEVICE_NAME");
    arguments.after = {after.substr(0, colon), after.substr(colon + 1)};
}

void parseDevice(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                 const json &request)
{
    arguments.device = findDeviceFor(operations, who, textOf(request, "device"));
}

void parseDisconnect(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                     const json &request)
{
    arguments.reason = optionalText(request, "reason");
    parseDevice(operations, who, arguments, request);
}

void parseService(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const json &request)
{
    arguments.service = textOf(request, "service");
    arguments.is_shared = flagOf(request, "shared");
    arguments.client = optionalText(request, "client");
    parseDevice(operations, who, arguments, request);
}

void parseConnect(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const json &request)
{
    const std::string key = optionalText(request, "keep");
    if (request.contains("keep") && !keep::parseKey(key, arguments.keep.emplace()))
        throw OperationFault(FAULT::BAD_REQUEST, "\"keep\" of the request must be 32 hexadecimal "
                                                 "digits, in lower case");
    arguments.is_resumed = flagOf(request, "resume");
    if (arguments.is_resumed && !arguments.keep)
        throw OperationFault(FAULT::BAD_REQUEST, "\"resume\" of the request needs \"keep\"");
    parseService(operations, who, arguments, request);
}

void parseAccount(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                  const json &request)
{
    arguments.user = textOf(request, "user");
    arguments.password = textOf(request, "password");
    parseDevice(operations, who, arguments, request);
}

void parseSession(const OPERATIONS_T &operations, const PRINCIPAL_T & /*who*/,
                  ARGUMENTS_T &arguments, const json &request)
{
    arguments.session = textOf(request, "session");
    const SessionPtr session = findSession(*operations.sessions, arguments.session);
    if (!session || session->state == SESSION_STATE::CLOSED)
        throw OperationFault(FAULT::NOT_FOUND, noSuchSession(arguments.session));
    arguments.device = session->device;
    arguments.service = session->service.name;
}

void parseQuestion(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                   const json &request)
{
    const std::string verb = optionalText(request, "verb");
    const auto right = verb.empty() ? RIGHT::CONNECT : findRight(verb);
    if (!right) throw OperationFault(FAULT::BAD_REQUEST, "there is no verb \"" + verb + "\"");
    arguments.right = *right;
    arguments.service = optionalText(request, "service");
    parseDevice(operations, who, arguments, request);
}

void parseNewToken(const OPERATIONS_T & /*operations*/, const PRINCIPAL_T & /*who*/,
                   ARGUMENTS_T &arguments, const json &request)
{
    constexpr std::int64_t USUAL_DAYS = 90;
    arguments.id = newUuid();
    arguments.label = textOf(request, "label");
    if (arguments.label.size() > LABEL_MAX)
        throw OperationFault(FAULT::BAD_REQUEST, "the label of a token has at most " +
                                                     std::to_string(LABEL_MAX) + " bytes");
    if (!isPlainText(arguments.label))
        throw OperationFault(FAULT::BAD_REQUEST,
                             "the label holds a quote, backslash or control character");
    arguments.days = numberOf(request, "days", USUAL_DAYS, TOKEN_DAYS_MAX);
}

static PUBLIC_KEY_T keyOf(const std::string &text, KEY_OWNER owner)
{
    try {
        return parsePublicKey(text, owner);
    } catch (const std::invalid_argument &fault) {
        throw OperationFault(FAULT::BAD_REQUEST, fault.what());
    }
}

static void addHostKey(ARGUMENTS_T &arguments, const json &text)
{
    if (!text.is_string())
        throw OperationFault(FAULT::BAD_REQUEST, "\"keys\" of the request has something else than "
                                                 "texts");
    PUBLIC_KEY_T key = keyOf(text.get<std::string>(), KEY_OWNER::HOST);
    for (const PUBLIC_KEY_T &other : arguments.host_keys)
        if (other.type == key.type)
            throw OperationFault(FAULT::BAD_REQUEST, "\"keys\" of the request has two " + key.type);
    arguments.host_keys.push_back(std::move(key));
}

void parseHostKeys(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                   const json &request)
{
    parseService(operations, who, arguments, request);
    const auto keys = request.find("keys");
    if (keys == request.end()) return;
    if (!keys->is_array() || keys->empty() || keys->size() > HOST_KEYS_MAX)
        throw OperationFault(FAULT::BAD_REQUEST, "\"keys\" of the request must be 1 to " +
                                                     std::to_string(HOST_KEYS_MAX) + " keys");
    for (const json &text : *keys)
        addHostKey(arguments, text);
}

void parseKeyToSign(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                    const json &request)
{
    parseService(operations, who, arguments, request);
    arguments.public_key = keyOf(textOf(request, "public_key"), KEY_OWNER::USER);
}

void parseToken(const OPERATIONS_T &operations, const PRINCIPAL_T &who, ARGUMENTS_T &arguments,
                const json &request)
{
    arguments.id = textOf(request, "id");
    requireRevocable(operations, who, arguments.id);
}

} // namespace backend
