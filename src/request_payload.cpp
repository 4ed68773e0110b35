#include "src/request_payload.h"

#include "common/log.h"
#include "utility/json_scanner.h"
#include "utility/text.h"

namespace {

constexpr std::int32_t DEFAULT_SERVICE_PORT = 22;

std::string_view payloadText(const char *text, std::int32_t length)
{
    return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
}

template <std::size_t N>
void takeString(std::string_view payload, const char *key, char (&field)[N])
{
    const JSON_VALUE_T value = json_lookup(payload, key);
    if (value.type == JSON_TYPE_STRING && !value.text.empty()) copy_text(field, value.text);
}

} // namespace

void parseProxyProtocolNewSessionPayload(const char *text, std::int32_t length,
                                         NEW_SESSION_REQ_T *request)
{
    if (text == nullptr) return;
    const std::string_view payload = payloadText(text, length);
    RA_INFO("new session payload: %.*s", static_cast<int>(payload.size()), text);
    copy_text(request->service_name, "ssh_localhost");
    copy_text(request->service_type, "SSH");
    copy_text(request->service_ip, "127.0.0.1");
    request->service_port = DEFAULT_SERVICE_PORT;
    takeString(payload, "service_name", request->service_name);
    takeString(payload, "service_type", request->service_type);
    takeString(payload, "service_ip", request->service_ip);
    const JSON_VALUE_T port = json_lookup(payload, "service_port");
    if (port.type == JSON_TYPE_NUMBER && !port.text.empty())
        request->service_port = parse_int32(port.text);
}

int parseProxyProtocolVerifyAccount(const char *text, std::int32_t length,
                                    VERIFY_ACCOUNT_T *account)
{
    const std::string_view payload = payloadText(text, length);
    const JSON_VALUE_T username = json_lookup(payload, "username");
    if (username.type != JSON_TYPE_STRING || username.text.empty()) {
        RA_ERROR("verify account body is invalid: %s ", text);
        return -1;
    }
    copy_text(account->username, "");
    if (username.text.size() >= sizeof account->username) {
        RA_WARN("account:username is too long: %s ", text);
        return -1;
    }
    copy_text(account->username, username.text);

    const JSON_VALUE_T password = json_lookup(payload, "password");
    if (password.type != JSON_TYPE_STRING || password.text.empty()) {
        RA_ERROR("verify account body is invalid: %s ", text);
        return -1;
    }
    copy_text(account->password, "");
    if (password.text.size() >= sizeof account->password) {
        RA_WARN("account:password is too long: %s ", text);
        return -1;
    }
    copy_text(account->password, password.text);
    return 0;
}
