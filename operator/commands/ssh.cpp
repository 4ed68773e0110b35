// The command that runs ssh(1) for a device: with its recorded host keys, and with a certificate
// where the back end makes them.
#include "operator/commands/commands.h"
#include "operator/commands/host_keys.h"
#include "operator/commands/proxy_command.h"
#include "operator/commands/requests.h"
#include "operator/terminal.h"
#include "utility/child_process.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

extern char **environ; // NOLINT(readability-redundant-declaration): not in every header

namespace {

constexpr int SIGNAL_STATUS = 128; // and the signal's number, as a shell says it

// What the run leaves behind if nobody takes care: the files, and ssh itself.
struct RUN_T {
    PrivateFolder folder;
    std::atomic<pid_t> child = 0; // 0: none yet
};
using RunPtr = std::shared_ptr<RUN_T>;

// Those that the caller ignores, as nohup(1) wants it, are left alone.
sigset_t endSignals()
{
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction usual {};
        (void)::sigaction(number, nullptr, &usual);
        if (usual.sa_handler != SIG_IGN) sigaddset(&ends, number);
    }
    return ends;
}

[[noreturn]] void watch(const RunPtr &run, const sigset_t &ends)
{
    for (;;) {
        int number = 0;
        if (::sigwait(&ends, &number) != 0) continue;
        if (const pid_t running = run->child; running > 0) {
            (void)::kill(running, number);
            continue;
        }
        run->folder.remove();
        ::_exit(SIGNAL_STATUS + number);
    }
}

// Signals that end the process are blocked in every thread from here on, and come to one that
// passes them to ssh, or removes the files.
RunPtr startRun()
{
    const sigset_t ends = endSignals();
    (void)::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    auto run = std::make_shared<RUN_T>();
    std::thread([run, ends] { watch(run, ends); }).detach();
    return run;
}

struct FolderEnd {
    ~FolderEnd()
    {
        run->folder.remove();
    }
    RunPtr run;
};

struct TARGET_ACCOUNT_T {
    std::string account; // empty: ssh's own choice
    std::string target;
};

TARGET_ACCOUNT_T splitAccount(const std::string &text)
{
    const std::size_t at = text.find('@');
    if (at == std::string::npos) return {"", text};
    if (at == 0) throw std::invalid_argument("\"" + text + "\" is no ACCOUNT@DEVICE");
    return {text.substr(0, at), text.substr(at + 1)};
}

// What ssh calls the device; its configuration can go by it. It never looks it up.
std::string hostName(const std::string &device)
{
    const std::string name = device.substr(device.find(':') + 1);
    return isPlain(name) && !name.starts_with('-') ? name : "device";
}

void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    file << text << '\n';
    file.close();
    if (!file) throw std::runtime_error(path + ": cannot be written");
}

std::string readLine(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) throw std::runtime_error(path + ": cannot be read");
    return line;
}

std::string newKey(const std::string &folder)
{
    std::string path = folder + "/key";
    CHILD_T child;
    child.command = {"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "", "-f", path};
    child.environment = {"PATH=/usr/bin:/bin", "LC_ALL=C"};
    const CHILD_RESULT_T result = run_child(child);
    if (result.status != 0) throw std::runtime_error("no key could be made: " + result.errors);
    return path;
}

void add(std::vector<std::string> &command, const std::string &option)
{
    command.push_back("-o");
    command.push_back(option);
}

// Of a path or name in the value of an option of ssh, which expands % and splits at spaces.
std::string optionText(const std::string &text)
{
    std::string quoted = "\"";
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') quoted += '\\';
        quoted += byte;
        if (byte == '%') quoted += '%';
    }
    return quoted + "\"";
}

// Adds what proves who logs in; returns the only account that it is for, if it is only one. A back
// end that makes no certificates, or none for this operator, leaves it to ssh's own keys.
std::string addCertificate(const OPERATOR_OPTIONS_T &options, const json &service,
                           const std::string &folder, std::vector<std::string> &command)
{
    const bool is_own = !options.identity.empty();
    const std::string key = is_own ? options.identity : newKey(folder);
    if (is_own) add(command, "IdentityFile=" + optionText(key));
    json request = service;
    request["do"] = "ssh-certificate";
    request["public_key"] = readLine(key + ".pub");
    json answer;
    try {
        answer = ask(options.back_end, request, waitOf(options, ANSWER_TIME));
    } catch (const RequestError &fault) {
        if (fault.is_unreachable) throw;
        if (!fault.is_not_built)
            (void)std::fprintf(stderr, "remote-access: %s; ssh tries your own keys\n",
                               shown(fault.what()).c_str());
        return "";
    }
    const std::string certificate = folder + "/certificate";
    writeFile(certificate, answer.value("certificate", ""));
    if (!is_own) add(command, "IdentityFile=" + optionText(key));
    add(command, "CertificateFile=" + optionText(certificate));
    const json principals = answer.value("principals", json::array());
    if (principals.size() != 1 || !principals[0].is_string()) return "";
    const std::string only = principals[0].get<std::string>();
    return only.substr(0, only.find('@'));
}

// A back end that keeps no host keys leaves it to ssh's own files.
void addHostKeys(const OPERATOR_OPTIONS_T &options, const json &service, const std::string &folder,
                 std::vector<std::string> &command)
{
    std::vector<std::string> keys;
    try {
        keys = recordedHostKeys(options, service);
        if (keys.empty()) keys = learnHostKeys(options, service);
    } catch (const RequestError &fault) {
        if (!fault.is_not_built) throw;
        return;
    }
    const std::string name = service.value("device", "");
    std::string lines;
    for (const std::string &key : keys)
        lines += knownHostLine("*", key) + "\n";
    writeFile(folder + "/known_hosts", lines);
    add(command, "UserKnownHostsFile=" + optionText(folder + "/known_hosts"));
    add(command, "GlobalKnownHostsFile=/dev/null");
    add(command, "StrictHostKeyChecking=yes");
    add(command, "UpdateHostKeys=no");
    add(command, "VerifyHostKeyDNS=no");
}

// Stops with ssh, which does so on its escape for it.
int waitFor(pid_t child)
{
    for (;;) {
        int status = 0;
        if (::waitpid(child, &status, WUNTRACED) < 0) {
            if (errno == EINTR) continue;
            return OPERATOR_REFUSED;
        }
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return SIGNAL_STATUS + WTERMSIG(status);
        (void)::raise(SIGSTOP);
        (void)::kill(child, SIGCONT);
    }
}

int runSsh(std::vector<std::string> &command, RUN_T &run)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string &text : command)
        arguments.push_back(text.data());
    arguments.push_back(nullptr);
    sigset_t none;
    sigset_t usual;
    sigemptyset(&none);
    sigemptyset(&usual);
    sigaddset(&usual, SIGPIPE); // the tool ignores it
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &usual);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = 0;
    const int fault =
        ::posix_spawnp(&child, "ssh", nullptr, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    if (fault != 0) throw std::runtime_error(std::string("ssh: ") + std::strerror(fault));
    run.child = child;
    return waitFor(child);
}

} // namespace

int runSshSession(const OPERATOR_OPTIONS_T &options)
{
    const FolderEnd end{startRun()};
    const std::string &folder = end.run->folder.path();
    OPERATOR_OPTIONS_T chosen = options;
    const TARGET_ACCOUNT_T target = splitAccount(options.target);
    chosen.target = target.target;
    const json service = connectRequest(chosen, waitOf(options, ANSWER_TIME));
    std::vector<std::string> command{"ssh"};
    addHostKeys(chosen, service, folder, command);
    const std::string only = addCertificate(chosen, service, folder, command);
    add(command, "ProxyCommand=" + proxyCommand(options, service));
    const std::string &account = target.account.empty() ? only : target.account;
    if (!account.empty()) add(command, "User=" + optionText(account));
    const std::string name = hostName(service.value("device", ""));
    add(command, "HostKeyAlias=" + name);
    command.push_back(name);
    command.insert(command.end(), options.arguments.begin(), options.arguments.end());
    return runSsh(command, *end.run);
}
