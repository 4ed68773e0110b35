// The requests with one short answer: verify, disconnect, close; and what connect and forward
// share.
#include "operator/commands/requests.h"

#include "operator/kept/kept_session.h"
#include "operator/terminal.h"

#include <cstdio>
#include <iostream>
#include <strings.h>

using nlohmann::json;

namespace {

std::string onlySshService(const OPERATOR_OPTIONS_T &options, const std::string &device,
                           std::chrono::seconds time)
{
    const json answer = ask(options.back_end, {{"do", "services"}, {"device", device}}, time);
    const json services = answer.value("services", json::array());
    const std::vector<std::string> names = sshServices(services);
    if (names.size() == 1) return names.front();
    std::string offered;
    for (const json &service : services)
        offered += (offered.empty() ? "" : ", ") + device + "/" + service.value("name", "");
    throw RequestError(device + " offers " + (names.empty() ? "no" : "more than one") +
                           " service of ssh; name the one that is meant: " +
                           (offered.empty() ? "it offers none at all" : offered),
                       false);
}

} // namespace

TARGET_TEXT_T parseTarget(const std::string &text)
{
    const std::size_t slash = text.find('/');
    if (text.empty() || slash == 0 || slash + 1 == text.size())
        throw std::invalid_argument("\"" + text + "\" is no DEVICE/SERVICE");
    if (slash == std::string::npos) return {text, ""};
    return {text.substr(0, slash), text.substr(slash + 1)};
}

std::vector<std::string> sshServices(const json &services)
{
    std::vector<std::string> names;
    for (const json &service : services) {
        const std::string name = service.value("name", "");
        const std::string type = service.value("type", "");
        if (::strncasecmp(name.c_str(), "ssh", 3) == 0 || ::strcasecmp(type.c_str(), "ssh") == 0)
            names.push_back(name);
    }
    return names;
}

json connectRequest(const OPERATOR_OPTIONS_T &options, std::chrono::seconds time)
{
    const TARGET_TEXT_T target = parseTarget(options.target);
    return {{"do", "connect"},
            {"device", target.device},
            {"service", target.service.empty() ? onlySshService(options, target.device, time)
                                               : target.service}};
}

std::unique_ptr<Session> openUsualSession(const OPERATOR_OPTIONS_T &options, const json &request,
                                          SESSION_ENDS_T &ends, std::chrono::seconds time)
{
    std::unique_ptr<Session> session;
    if (!options.no_keep)
        session = openKeptSession(options.back_end, request, ends, time, options.target);
    return session ? std::move(session) : openSession(options.back_end, request, ends, time);
}

int verifyAccount(const OPERATOR_OPTIONS_T &options)
{
    std::string password;
    password.reserve(PASSWORD_ROOM);
    if (options.password_stdin)
        std::getline(std::cin, password);
    else
        password = readPassword("Password of " + options.user + " on " + options.device + ": ",
                                "--password-stdin");
    json request = {{"do", "verify"},
                    {"device", options.device},
                    {"user", options.user},
                    {"password", std::move(password)}};
    const auto time = waitOf(options, DEVICE_ANSWER_TIME);
    json answer;
    try {
        answer = ask(options.back_end, request, time);
    } catch (...) {
        wipe(request["password"].get_ref<std::string &>());
        throw;
    }
    wipe(request["password"].get_ref<std::string &>());
    std::puts(shown(answer.value("message", "")).c_str());
    return answer.value("code", -1) == 0 ? OPERATOR_DONE : OPERATOR_REFUSED;
}

int disconnectDevice(const OPERATOR_OPTIONS_T &options)
{
    json request = {{"do", "disconnect"}, {"device", options.device}};
    if (!options.reason.empty()) request["reason"] = options.reason;
    (void)ask(options.back_end, request, waitOf(options, ANSWER_TIME));
    std::printf("%s disconnected\n", shown(options.device).c_str());
    return OPERATOR_DONE;
}

int closeSession(const OPERATOR_OPTIONS_T &options)
{
    (void)ask(options.back_end, {{"do", "close"}, {"session", options.session}},
              waitOf(options, ANSWER_TIME));
    std::printf("%s closed\n", shown(options.session).c_str());
    return OPERATOR_DONE;
}
