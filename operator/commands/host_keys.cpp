#include "operator/commands/host_keys.h"

#include "operator/commands/local_port.h"
#include "operator/commands/requests.h"
#include "operator/terminal.h"
#include "utility/child_process.h"

#include <array>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;
using std::chrono::seconds;

namespace {

constexpr char KEYSCAN[] = "ssh-keyscan";
constexpr char KEY_TYPES[] = "ed25519,ecdsa,rsa";
constexpr int CONNECTIONS_MAX = 8; // one for each type
constexpr auto SESSION_END_TIME = seconds(2);

// The JSON library does not say that its move throws nothing.
// NOLINTNEXTLINE(bugprone-exception-escape)
struct SCAN_T {
    OPERATOR_OPTIONS_T options;
    json service;
    LOCAL_PORT_T port;
    UniqueFd end{::eventfd(0, EFD_CLOEXEC)};
    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    std::set<std::string> open;
    int clients = 0; // whose session has not ended
};

void noteClient(SCAN_T &scan)
{
    const std::lock_guard guard(scan.mutex);
    ++scan.clients;
}

void noteOpen(SCAN_T &scan, const std::string &session)
{
    const std::lock_guard guard(scan.mutex);
    scan.open.insert(session);
}

void noteEnd(SCAN_T &scan)
{
    const std::lock_guard guard(scan.mutex);
    --scan.clients;
    scan.changed.notify_all();
}

void carryOne(const std::shared_ptr<SCAN_T> &scan, UniqueFd client)
{
    SESSION_ENDS_T ends{std::move(client), {}};
    try {
        const auto time = waitOf(scan->options, DEVICE_ANSWER_TIME);
        const auto session = openSession(scan->options.back_end, scan->service, ends, time);
        SESSION_COUNTS_T counts;
        noteOpen(*scan, session->id());
        (void)session->carry(counts);
    } catch (const std::exception &fault) {
        if (ends.in) turnAway(std::move(ends.in));
        (void)std::fprintf(stderr, "remote-access: %s\n", shown(fault.what()).c_str());
    }
    noteEnd(*scan);
}

// Until the end is told. Other accounts of this machine are turned away.
void serveScan(const std::shared_ptr<SCAN_T> &scan)
{
    for (int taken = 0; taken < CONNECTIONS_MAX;) {
        std::array<pollfd, 2> inputs{
            {{scan->port.listener.get(), POLLIN, 0}, {scan->end.get(), POLLIN, 0}}};
        if (::poll(inputs.data(), inputs.size(), -1) < 0) continue;
        if (inputs[1].revents != 0) return;
        // cppcheck-suppress nullPointer // accept(2) allows null for an address that is not wanted
        UniqueFd client{::accept4(scan->port.listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
        if (!client) continue;
        const auto account = clientAccount(scan->port, client.get());
        if (!account || *account != ::geteuid()) {
            turnAway(std::move(client));
            continue;
        }
        ++taken;
        noteClient(*scan);
        std::thread(carryOne, scan, std::move(client)).detach();
    }
}

// ssh-keyscan leaves while the service still waits for its next word: nobody needs that.
void endSessions(SCAN_T &scan)
{
    std::unique_lock guard(scan.mutex);
    const std::set<std::string> open = scan.open;
    guard.unlock();
    for (const std::string &session : open) {
        try {
            (void)ask(scan.options.back_end, {{"do", "close"}, {"session", session}},
                      waitOf(scan.options, ANSWER_TIME));
        } catch (const RequestError &) {
            continue; // it has ended by itself
        }
    }
    guard.lock();
    scan.changed.wait_for(guard, SESSION_END_TIME, [&scan] { return scan.clients == 0; });
}

// Lines "HOST TYPE BASE64", and comments.
std::vector<std::string> keysOf(const std::string &output)
{
    std::vector<std::string> keys;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t space = line.find(' ');
        if (line.starts_with('#') || space == std::string::npos) continue;
        keys.push_back(line.substr(space + 1));
    }
    return keys;
}

std::vector<std::string> shownHostKeys(const OPERATOR_OPTIONS_T &options, const json &service)
{
    const auto scan = std::make_shared<SCAN_T>();
    scan->options = options;
    scan->service = service;
    scan->port = openLocalPort(0);
    const auto time = waitOf(options, DEVICE_ANSWER_TIME);
    const std::string port = scan->port.text.substr(scan->port.text.rfind(':') + 1);
    std::thread server(serveScan, scan);
    CHILD_T child;
    child.command = {KEYSCAN, "-T",       std::to_string(time.count()), "-t", KEY_TYPES, "-p",
                     port,    "127.0.0.1"};
    child.environment = {"PATH=/usr/bin:/bin", "LC_ALL=C"};
    child.time = time * 2;
    const CHILD_RESULT_T result = run_child(child);
    (void)::eventfd_write(scan->end.get(), 1);
    server.join();
    endSessions(*scan);
    std::vector<std::string> keys = keysOf(result.output);
    if (!keys.empty()) return keys;
    throw RequestError(service.value("device", "") + "/" + service.value("service", "") +
                           " has shown no host key of ssh" +
                           (result.status == -1 ? ": " + result.errors : ""),
                       false);
}

json hostKeysRequest(const json &service, const char *operation)
{
    json request = service;
    request["do"] = operation;
    return request;
}

std::vector<std::string> keysOf(const json &answer)
{
    std::vector<std::string> keys;
    for (const json &key : answer.value("keys", json::array())) {
        const std::string text = key.value("type", "") + " " + key.value("key", "");
        if (text != shown(text)) throw RequestError("the back end's answer has no keys", true);
        keys.push_back(text);
    }
    return keys;
}

bool isThere(const std::string &path, const std::string &wanted)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line == wanted) return true;
    return false;
}

// Without those that are there.
void appendLines(const std::string &path, const std::vector<std::string> &lines)
{
    const bool is_new = ::access(path.c_str(), F_OK) != 0;
    const mode_t usual = ::umask(is_new ? 0177 : 0077);
    std::ofstream file(path, std::ios::app);
    ::umask(usual);
    for (const std::string &line : lines)
        if (!isThere(path, line)) file << line << '\n';
    file.close();
    if (!file) throw std::runtime_error(path + ": cannot be written");
}

} // namespace

std::string knownHostLine(const std::string &name, const std::string &key)
{
    return name + " " + key;
}

std::vector<std::string> recordedHostKeys(const OPERATOR_OPTIONS_T &options, const json &service)
{
    return keysOf(
        ask(options.back_end, hostKeysRequest(service, "host-keys"), waitOf(options, ANSWER_TIME)));
}

std::vector<std::string> learnHostKeys(const OPERATOR_OPTIONS_T &options, const json &service)
{
    json request = hostKeysRequest(service, "host-keys");
    request["keys"] = shownHostKeys(options, service);
    return keysOf(ask(options.back_end, request, waitOf(options, ANSWER_TIME)));
}

int showKnownHosts(const OPERATOR_OPTIONS_T &options)
{
    const json service = connectRequest(options, waitOf(options, ANSWER_TIME));
    if (options.forget) {
        (void)ask(options.back_end, hostKeysRequest(service, "host-keys-forget"),
                  waitOf(options, ANSWER_TIME));
        std::printf("the host keys of %s are forgotten\n", shown(options.target).c_str());
        return OPERATOR_DONE;
    }
    const std::vector<std::string> keys =
        options.recorded ? recordedHostKeys(options, service) : learnHostKeys(options, service);
    std::vector<std::string> lines;
    lines.reserve(keys.size());
    for (const std::string &key : keys)
        lines.push_back(knownHostLine(shown(service.value("device", "")), key));
    if (!options.file.empty()) {
        appendLines(options.file, lines);
        return OPERATOR_DONE;
    }
    for (const std::string &line : lines)
        std::puts(line.c_str());
    return OPERATOR_DONE;
}
