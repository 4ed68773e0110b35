// The commands that ask and print: devices, services, sessions, verify.
#include "operator/commands.h"
#include "operator/control_client.h"
#include "operator/terminal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <thread>
#include <unistd.h>
#include <vector>

using nlohmann::json;

namespace {

using Row = std::vector<std::string>;

// Columns as wide as they need to be.
void printTable(const std::vector<Row> &rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row &row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
        }
        std::puts(line.c_str());
    }
    if (std::fflush(stdout) != 0)
        throw ControlError(std::string("standard output: ") + std::strerror(errno), false);
}

std::string textOf(const json &object, const char *name)
{
    return shown(object.value(name, ""));
}

std::string numberOf(const json &object, const char *name)
{
    return object.contains(name) ? std::to_string(object.value(name, std::int64_t{0})) : "-";
}

int printList(const OPERATOR_OPTIONS_T &options, const json &list, Row head,
              Row (*row)(const json &element))
{
    if (options.json) {
        std::puts(list.dump(-1, ' ', true).c_str());
        return OPERATOR_DONE;
    }
    std::vector<Row> rows{std::move(head)};
    for (const json &element : list)
        rows.push_back(row(element));
    printTable(rows);
    return OPERATOR_DONE;
}

Row deviceRow(const json &device)
{
    return {textOf(device, "device"),
            textOf(device, "product"),
            device.value("connected", false) ? "connected" : "away",
            timeText(device.value("since", std::int64_t{0})),
            numberOf(device, "services"),
            numberOf(device, "sessions"),
            textOf(device, "peer")};
}

Row serviceRow(const json &service)
{
    return {textOf(service, "name"), textOf(service, "type"),
            textOf(service, "ip") + ":" + numberOf(service, "port")};
}

Row sessionRow(const json &session)
{
    return {textOf(session, "device") + "/" + textOf(session, "service"),
            textOf(session, "who"),
            timeText(session.value("since", std::int64_t{0})),
            sizeText(session.value("bytes_up", 0.0)),
            sizeText(session.value("bytes_down", 0.0)),
            textOf(session, "session")};
}

Row sessionHead()
{
    return {"SESSION OF", "WHO", "SINCE (UTC)", "UP", "DOWN", "IDENTIFIER"};
}

json askForSessions(const OPERATOR_OPTIONS_T &options)
{
    return ask(options.control, {{"do", "sessions"}}).at("sessions");
}

// The table once a second, with what went each way since the last one.
[[noreturn]] void watchSessions(const OPERATOR_OPTIONS_T &options)
{
    std::map<std::string, std::pair<double, double>> before;
    for (;;) {
        std::vector<Row> rows{sessionHead()};
        rows.front().insert(rows.front().begin() + 5, {"UP/S", "DOWN/S"});
        std::map<std::string, std::pair<double, double>> now;
        for (const json &session : askForSessions(options)) {
            const std::string id = session.value("session", "");
            const std::pair count{session.value("bytes_up", 0.0), session.value("bytes_down", 0.0)};
            const auto old = before.contains(id) ? before[id] : count;
            Row row = sessionRow(session);
            row.insert(row.begin() + 5,
                       {sizeText(count.first - old.first), sizeText(count.second - old.second)});
            rows.push_back(std::move(row));
            now[id] = count;
        }
        if (::isatty(STDOUT_FILENO) != 0) (void)std::fputs("\033[H\033[2J", stdout);
        printTable(rows);
        before = std::move(now);
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

} // namespace

int showDevices(const OPERATOR_OPTIONS_T &options)
{
    return printList(
        options, ask(options.control, {{"do", "devices"}}).at("devices"),
        {"DEVICE", "PRODUCT", "CHANNEL", "SINCE (UTC)", "SERVICES", "SESSIONS", "FROM"}, deviceRow);
}

int showServices(const OPERATOR_OPTIONS_T &options)
{
    const json request = {{"do", "services"}, {"device", options.device}};
    return printList(options, ask(options.control, request).at("services"),
                     {"NAME", "TYPE", "ADDRESS"}, serviceRow);
}

int showSessions(const OPERATOR_OPTIONS_T &options)
{
    if (options.watch) watchSessions(options);
    return printList(options, askForSessions(options), sessionHead(), sessionRow);
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
    CONTROL_CLIENT_T client = openRequest(options.control, request);
    wipe(request["password"].get_ref<std::string &>());
    const json answer = onlyAnswer(client);
    std::puts(textOf(answer, "message").c_str());
    return answer.value("code", -1) == 0 ? OPERATOR_DONE : OPERATOR_REFUSED;
}
