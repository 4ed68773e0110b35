// The commands that list: devices, services, sessions, tokens, status.
#include "operator/commands/commands.h"
#include "operator/commands/table.h"
#include "operator/terminal.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fnmatch.h>
#include <map>
#include <set>
#include <span>
#include <thread>
#include <unistd.h>
#include <vector>

using nlohmann::json;

namespace {

constexpr int PAGE_SIZE = 1000;

struct LIST_T {
    std::span<const char *const> head;
    Row (*row)(const json &element);
    std::string (*name)(const json &element); // as the other commands take it
};

int printList(const OPERATOR_OPTIONS_T &options, const json &list, const LIST_T &as)
{
    if (options.json) {
        printJson(list);
        return OPERATOR_DONE;
    }
    if (options.names) {
        for (const json &element : list)
            std::puts(shown(as.name(element)).c_str());
        return OPERATOR_DONE;
    }
    std::vector<Row> rows{Row(as.head.begin(), as.head.end())};
    for (const json &element : list)
        rows.push_back(as.row(element));
    printTable(rows);
    return OPERATOR_DONE;
}

std::string fullName(const json &device)
{
    return rawText(device, "product") + ":" + rawText(device, "device");
}

std::string stateOf(const json &device)
{
    std::string state = textOf(device, "state");
    if (state.empty()) state = device.value("connected", false) ? "connected" : "away";
    return device.value("duplicate", false) ? state + ", DUPLICATE" : state;
}

Row deviceRow(const json &device)
{
    return {textOf(device, "device"),
            textOf(device, "product"),
            stateOf(device),
            timeText(device.value("since", std::int64_t{0})),
            numberOf(device, "services"),
            numberOf(device, "sessions"),
            textOf(device, "peer")};
}

Row awayRow(const json &device)
{
    return {textOf(device, "device"), textOf(device, "product"),
            timeText(device.value("last_seen", std::int64_t{0})),
            textOrDash(device, "last_address"), textOrDash(device, "last_reason")};
}

// The name alone where one device has it, else with its product; for --names.
json withShortNames(json devices)
{
    std::map<std::string, int> counts;
    for (const json &device : devices)
        ++counts[rawText(device, "device")];
    for (json &device : devices)
        device["name"] =
            counts[rawText(device, "device")] > 1 ? fullName(device) : rawText(device, "device");
    return devices;
}

bool isMatch(const std::string &pattern, const json &device)
{
    return ::fnmatch(pattern.c_str(), rawText(device, "device").c_str(), 0) == 0 ||
           ::fnmatch(pattern.c_str(), fullName(device).c_str(), 0) == 0;
}

struct SELECTION_T {
    json devices = json::array();
    std::set<std::string> unmatched; // patterns that no device has
};

SELECTION_T selectDevices(const OPERATOR_OPTIONS_T &options, const json &devices)
{
    SELECTION_T selection;
    selection.unmatched = {options.patterns.begin(), options.patterns.end()};
    for (const json &device : devices) {
        bool is_wanted = options.patterns.empty();
        for (const std::string &pattern : options.patterns) {
            if (!isMatch(pattern, device)) continue;
            is_wanted = true;
            selection.unmatched.erase(pattern);
        }
        if (options.away && stateOf(device).rfind("away", 0) != 0) is_wanted = false;
        if (is_wanted) selection.devices.push_back(device);
    }
    return selection;
}

Row serviceRow(const json &service)
{
    return {textOf(service, "name"), textOf(service, "type"),
            textOf(service, "ip") + ":" + numberOf(service, "port")};
}

Row sessionRow(const json &session)
{
    std::string who = textOf(session, "who");
    if (const std::string from = textOf(session, "from"); !from.empty()) who += " (" + from + ")";
    return {textOf(session, "device") + "/" + textOf(session, "service"),
            who,
            timeText(session.value("since", std::int64_t{0})),
            sizeText(session.value("bytes_up", 0.0)),
            sizeText(session.value("bytes_down", 0.0)),
            textOf(session, "session")};
}

Row tokenRow(const json &token)
{
    return {textOf(token, "label"), textOf(token, "operator"), timeOf(token, "made"),
            timeOf(token, "expires"), textOf(token, "id")};
}

constexpr auto DEVICE_HEAD =
    std::to_array({"DEVICE", "PRODUCT", "CHANNEL", "SINCE (UTC)", "SERVICES", "SESSIONS", "FROM"});
constexpr auto AWAY_HEAD =
    std::to_array({"DEVICE", "PRODUCT", "LAST SEEN (UTC)", "LAST ADDRESS", "LAST REASON"});
constexpr auto SERVICE_HEAD = std::to_array({"NAME", "TYPE", "ADDRESS"});
constexpr auto SESSION_HEAD =
    std::to_array({"SESSION OF", "WHO", "SINCE (UTC)", "UP", "DOWN", "IDENTIFIER"});

constexpr auto TOKEN_HEAD =
    std::to_array({"LABEL", "OPERATOR", "MADE (UTC)", "EXPIRES (UTC)", "IDENTIFIER"});

std::string nameOf(const json &element)
{
    return rawText(element, "name");
}

std::string identifierOf(const json &session)
{
    return rawText(session, "session");
}

std::string tokenName(const json &token)
{
    return rawText(token, "id");
}

constexpr LIST_T DEVICES{DEVICE_HEAD, deviceRow, nameOf};
constexpr LIST_T AWAY_DEVICES{AWAY_HEAD, awayRow, nameOf};
constexpr LIST_T SERVICES{SERVICE_HEAD, serviceRow, nameOf};
constexpr LIST_T SESSIONS{SESSION_HEAD, sessionRow, identifierOf};
constexpr LIST_T TOKENS{TOKEN_HEAD, tokenRow, tokenName};

json listIn(const json &answer, const char *name)
{
    const auto list = answer.find(name);
    if (list == answer.end() || !list->is_array())
        throw RequestError("the back end's answer has no list", true);
    return *list;
}

json askForList(const OPERATOR_OPTIONS_T &options, const json &request)
{
    const json answer = ask(options.back_end, request, waitOf(options, ANSWER_TIME));
    return listIn(answer, request.at("do").get<std::string>().c_str());
}

// Page by page. A back end that knows no pages answers with all at once.
json askForDevices(const OPERATOR_OPTIONS_T &options)
{
    json request = {{"do", "devices"}, {"limit", PAGE_SIZE}};
    // What is left out there need not travel. For short names all devices must be known.
    if (options.patterns.size() == 1 && !options.names)
        request["pattern"] = options.patterns.front();
    else if (options.patterns.empty() && options.away && !options.names)
        request["state"] = "away";
    json devices = json::array();
    for (std::string after;;) {
        json answer = ask(options.back_end, request, waitOf(options, ANSWER_TIME));
        for (json &device : listIn(answer, "devices"))
            devices.push_back(std::move(device));
        const std::string next = rawText(answer, "next");
        if (next.empty()) return devices;
        if (next <= after) throw RequestError("the back end's pages do not end", true);
        request["after"] = after = next;
    }
}

struct COUNT_T {
    double up = 0;
    double down = 0;
};

// Bytes of the sessions, by identifier, and when they were asked for.
struct READING_T {
    std::chrono::steady_clock::time_point time;
    std::map<std::string, COUNT_T> counts;
};

// Prints the table with what went each way since the last reading.
void printRates(const json &sessions, const READING_T &before, READING_T &now)
{
    const double passed = std::chrono::duration<double>(now.time - before.time).count();
    std::vector<Row> rows{Row(SESSIONS.head.begin(), SESSIONS.head.end())};
    rows.front().insert(rows.front().begin() + 5, {"UP/S", "DOWN/S"});
    for (const json &session : sessions) {
        const std::string id = rawText(session, "session");
        const COUNT_T count{session.value("bytes_up", 0.0), session.value("bytes_down", 0.0)};
        const auto found = before.counts.find(id);
        const COUNT_T old = found == before.counts.end() ? count : found->second;
        Row row = sessionRow(session);
        row.insert(row.begin() + 5, {sizeText((count.up - old.up) / passed),
                                     sizeText((count.down - old.down) / passed)});
        rows.push_back(std::move(row));
        now.counts[id] = count;
    }
    if (::isatty(STDOUT_FILENO) != 0) (void)std::fputs("\033[H\033[2J", stdout);
    printTable(rows);
}

// Once a second: the table, or one JSON array on a line.
[[noreturn]] void watchSessions(const OPERATOR_OPTIONS_T &options)
{
    READING_T before;
    for (;;) {
        const json sessions = askForList(options, {{"do", "sessions"}});
        if (options.json) {
            printJson(sessions);
        } else {
            READING_T now{std::chrono::steady_clock::now(), {}};
            printRates(sessions, before, now);
            before = std::move(now);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

} // namespace

int showDevices(const OPERATOR_OPTIONS_T &options)
{
    json devices = askForDevices(options);
    if (options.names) devices = withShortNames(std::move(devices));
    const SELECTION_T selection = selectDevices(options, devices);
    int status = printList(options, selection.devices, options.away ? AWAY_DEVICES : DEVICES);
    for (const std::string &pattern : selection.unmatched) {
        (void)std::fprintf(stderr, "remote-access: no device matches %s\n", shown(pattern).c_str());
        status = OPERATOR_REFUSED;
    }
    return status;
}

int showServices(const OPERATOR_OPTIONS_T &options)
{
    return printList(options, askForList(options, {{"do", "services"}, {"device", options.device}}),
                     SERVICES);
}

int showSessions(const OPERATOR_OPTIONS_T &options)
{
    if (options.watch) watchSessions(options);
    return printList(options, askForList(options, {{"do", "sessions"}}), SESSIONS);
}

int showTokens(const OPERATOR_OPTIONS_T &options)
{
    return printList(options, askForList(options, {{"do", "tokens"}}), TOKENS);
}

int showStatus(const OPERATOR_OPTIONS_T &options)
{
    json answer = ask(options.back_end, {{"do", "status"}}, waitOf(options, ANSWER_TIME));
    if (options.json) {
        printJson(answer);
        return OPERATOR_DONE;
    }
    std::vector<Row> rows{{"NAME", "VALUE", "MEANING"}};
    rows.push_back({"version", textOf(answer, "version"), "version of the back end"});
    for (const json &metric : answer.value("metrics", json::array()))
        rows.push_back({textOf(metric, "name"), metric.value("value", json(0)).dump(),
                        textOf(metric, "help")});
    printTable(rows);
    return OPERATOR_DONE;
}
