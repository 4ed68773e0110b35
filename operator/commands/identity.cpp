// What an operator asks about themselves and about one device: whoami, can, device, token.
#include "operator/commands/commands.h"
#include "operator/commands/requests.h"
#include "operator/commands/table.h"
#include "operator/terminal.h"

#include <array>
#include <cstdio>

using nlohmann::json;

namespace {

constexpr unsigned USUAL_DAYS = 90;

struct FIELD_T {
    const char *name;
    const char *title;
    std::string (*text)(const json &object, const char *name);
};

std::string stateText(const json &device, const char *name)
{
    std::string state = textOf(device, name);
    if (state.empty()) state = device.value("connected", false) ? "connected" : "away";
    return device.value("duplicate", false) ? state + ", DUPLICATE" : state;
}

std::string labelsText(const json &device, const char *name)
{
    std::string text;
    const json labels = device.value(name, json::object());
    for (const auto &[label, value] : labels.items())
        text += (text.empty() ? "" : ", ") + shown(label) + "=" +
                shown(value.is_string() ? value.get<std::string>() : value.dump());
    return text.empty() ? "-" : text;
}

constexpr auto DEVICE_FIELDS = std::to_array<FIELD_T>({
    {"device", "name", textOf},
    {"product", "product", textOf},
    {"state", "channel", stateText},
    {"since", "since (UTC)", timeOf},
    {"peer", "from", textOrDash},
    {"version", "version", textOrDash},
    {"services", "services", numberOf},
    {"sessions", "sessions", numberOf},
    {"last_seen", "last seen (UTC)", timeOf},
    {"last_address", "last address", textOrDash},
    {"last_reason", "last reason", textOrDash},
    {"labels", "labels", labelsText},
});

json askFor(const OPERATOR_OPTIONS_T &options, const json &request)
{
    return ask(options.back_end, request, waitOf(options, ANSWER_TIME));
}

} // namespace

int showDevice(const OPERATOR_OPTIONS_T &options)
{
    const json answer = askFor(options, {{"do", "device"}, {"device", options.device}});
    const json device = answer.value("device", json::object());
    if (options.json) {
        printJson(device);
        return OPERATOR_DONE;
    }
    std::vector<Row> rows;
    for (const FIELD_T &field : DEVICE_FIELDS)
        if (device.contains(field.name))
            rows.push_back({field.title, field.text(device, field.name)});
    if (!rows.empty()) printTable(rows);
    return OPERATOR_DONE;
}

int showIdentity(const OPERATOR_OPTIONS_T &options)
{
    const json answer = askFor(options, {{"do", "whoami"}});
    if (options.json) {
        printJson(answer);
        return OPERATOR_DONE;
    }
    const SERVER_T &server = options.back_end.server;
    const std::string name = textOf(answer, "operator");
    std::vector<Row> rows;
    if (!name.empty())
        rows.push_back({"operator", name});
    else
        rows.push_back({"operator", answer.value("policy", true)
                                        ? "none of this back end's"
                                        : "anybody: this back end has no list of operators"});
    rows.push_back({"back end", shown(server.control.empty() ? server.url : server.control)});
    rows.push_back({"from", textOrDash(answer, "from")});
    if (answer.contains("expires")) rows.push_back({"login ends (UTC)", timeOf(answer, "expires")});
    printTable(rows);
    return OPERATOR_DONE;
}

int showPermission(const OPERATOR_OPTIONS_T &options)
{
    const TARGET_TEXT_T target = parseTarget(options.target);
    const std::string usual = target.service.empty() ? "list" : "connect";
    json request = {{"do", "can"},
                    {"device", target.device},
                    {"verb", options.verb.empty() ? usual : options.verb}};
    if (!target.service.empty()) request["service"] = target.service;
    const json answer = askFor(options, request);
    const bool is_allowed = answer.value("allowed", false);
    if (options.json) {
        printJson(answer);
        return is_allowed ? OPERATOR_DONE : OPERATOR_REFUSED;
    }
    std::string text = is_allowed ? "allowed" : "not allowed";
    if (const std::string reason = textOf(answer, "reason"); !reason.empty()) text += ": " + reason;
    if (const std::string grant = textOf(answer, "grant"); !grant.empty())
        text += ", by the grant " + grant;
    if (answer.contains("max_session"))
        text += "; a session lasts " + numberOf(answer, "max_session") + " s at most";
    std::puts(text.c_str());
    return is_allowed ? OPERATOR_DONE : OPERATOR_REFUSED;
}

int makeToken(const OPERATOR_OPTIONS_T &options)
{
    json answer = askFor(options, {{"do", "token-make"},
                                   {"label", options.label},
                                   {"days", options.days == 0 ? USUAL_DAYS : options.days}});
    if (options.json) {
        printJson(answer);
        return OPERATOR_DONE;
    }
    std::string token = rawText(answer, "token");
    std::puts(shown(token).c_str());
    wipe(token);
    (void)std::fprintf(stderr,
                       "remote-access: it is shown this once; it ends at %s UTC; \"remote-access "
                       "token revoke %s\" ends it before\n",
                       timeOf(answer, "expires").c_str(), textOf(answer, "id").c_str());
    return OPERATOR_DONE;
}

int revokeToken(const OPERATOR_OPTIONS_T &options)
{
    const json answer = askFor(options, {{"do", "token-revoke"}, {"id", options.token}});
    const json revoked = answer.value("revoked", json::array());
    if (revoked.size() > 1) // with those that were made with it
        std::printf("%zu tokens revoked\n", revoked.size());
    else
        std::printf("%s revoked\n", shown(options.token).c_str());
    return OPERATOR_DONE;
}
