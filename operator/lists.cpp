// The commands that list: devices, services, sessions, status.
#include "operator/commands.h"
#include "operator/control_client.h"
#include "operator/terminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>
#include <map>
#include <set>
#include <span>
#include <thread>
#include <unistd.h>
#include <vector>

using nlohmann::json;

namespace {

using Row = std::vector<std::string>;

// As many columns as it takes on a terminal, for text that has no wide or combining characters.
std::size_t widthOf(const std::string &text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80; // no byte inside a character
    }));
}

void flushOutput()
{
    if (std::fflush(stdout) != 0)
        throw ControlError(std::string("standard output: ") + std::strerror(errno), false);
}

// Columns as wide as they need to be.
void printTable(const std::vector<Row> &rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row &row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - widthOf(row[i]) + 2, ' ');
        }
        std::puts(line.c_str());
    }
    flushOutput();
}

std::string rawText(const json &object, const char *name)
{
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string textOf(const json &object, const char *name)
{
    return shown(rawText(object, name));
}

std::string textOrDash(const json &object, const char *name)
{
    const std::string text = textOf(object, name);
    return text.empty() ? "-" : text;
}

std::string numberOf(const json &object, const char *name)
{
    return object.contains(name) ? std::to_string(object.value(name, std::int64_t{0})) : "-";
}

void printJson(const json &document)
{
    std::puts(document.dump(-1, ' ', true).c_str());
    flushOutput();
}

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

constexpr auto DEVICE_HEAD =
    std::to_array({"DEVICE", "PRODUCT", "CHANNEL", "SINCE (UTC)", "SERVICES", "SESSIONS", "FROM"});
constexpr auto AWAY_HEAD =
    std::to_array({"DEVICE", "PRODUCT", "LAST SEEN (UTC)", "LAST ADDRESS", "LAST REASON"});
constexpr auto SERVICE_HEAD = std::to_array({"NAME", "TYPE", "ADDRESS"});
constexpr auto SESSION_HEAD =
    std::to_array({"SESSION OF", "WHO", "SINCE (UTC)", "UP", "DOWN", "IDENTIFIER"});

std::string nameOf(const json &element)
{
    return rawText(element, "name");
}

std::string identifierOf(const json &session)
{
    return rawText(session, "session");
}

constexpr LIST_T DEVICES{DEVICE_HEAD, deviceRow, nameOf};
constexpr LIST_T AWAY_DEVICES{AWAY_HEAD, awayRow, nameOf};
constexpr LIST_T SERVICES{SERVICE_HEAD, serviceRow, nameOf};
constexpr LIST_T SESSIONS{SESSION_HEAD, sessionRow, identifierOf};

json askForList(const OPERATOR_OPTIONS_T &options, const json &request)
{
    const json answer = ask(options.control, request, waitOf(options, ANSWER_TIME));
    const auto list = answer.find(request.at("do").get<std::string>());
    if (list == answer.end() || !list->is_array())
        throw ControlError("the back end's answer has no list", true);
    return *list;
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
    json devices = askForList(options, {{"do", "devices"}});
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

int showStatus(const OPERATOR_OPTIONS_T &options)
{
    json answer = ask(options.control, {{"do", "status"}}, waitOf(options, ANSWER_TIME));
    answer.erase("ok");
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
