// The requests with one answer: verify, disconnect, close; and what connect and forward share.
#include "operator/requests.h"

#include "operator/commands.h"
#include "operator/terminal.h"

#include <cstdio>
#include <iostream>

using nlohmann::json;

json connectRequest(const std::string &target)
{
    const std::size_t slash = target.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == target.size())
        throw std::invalid_argument("\"" + target + "\" is no DEVICE/SERVICE");
    return {{"do", "connect"},
            {"device", target.substr(0, slash)},
            {"service", target.substr(slash + 1)}};
}

json endOf(CONTROL_CLIENT_T &client, std::chrono::seconds time)
{
    const auto end = nextAnswer(client, time);
    if (end) return *end;
    return {{"ended", "the back end went away"}, {"whole", false}};
}

int verifyAccount(const OPERATOR_OPTIONS_T &options)
{
    std::string password;
    password.reserve(PASSWORD_ROOM);
    if (options.password_stdin)
        std::getline(std::cin, password);
    else
        password = readPassword("Password of " + options.user + " on " + options.device + ": ");
    json request = {{"do", "verify"},
                    {"device", options.device},
                    {"user", options.user},
                    {"password", std::move(password)}};
    const auto time = waitOf(options, DEVICE_ANSWER_TIME);
    CONTROL_CLIENT_T client = openRequest(options.control, request, time);
    wipe(request["password"].get_ref<std::string &>());
    const json answer = onlyAnswer(client, time);
    std::puts(shown(answer.value("message", "")).c_str());
    return answer.value("code", -1) == 0 ? OPERATOR_DONE : OPERATOR_REFUSED;
}

int disconnectDevice(const OPERATOR_OPTIONS_T &options)
{
    json request = {{"do", "disconnect"}, {"device", options.device}};
    if (!options.reason.empty()) request["reason"] = options.reason;
    (void)ask(options.control, request, waitOf(options, ANSWER_TIME));
    std::printf("%s disconnected\n", shown(options.device).c_str());
    return OPERATOR_DONE;
}

int closeSession(const OPERATOR_OPTIONS_T &options)
{
    (void)ask(options.control, {{"do", "close"}, {"session", options.session}},
              waitOf(options, ANSWER_TIME));
    std::printf("%s closed\n", shown(options.session).c_str());
    return OPERATOR_DONE;
}
