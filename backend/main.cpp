// The back end's start, its signals and its end.
// Exit status  0 after SIGINT or SIGTERM, 1 when something cannot be used at run time, 2 for a
// wrong command line.
#include "backend/command_line.h"
#include "backend/directory/registry_reload.h"
#include "backend/net/listener.h"
#include "backend/net/memory.h"
#include "backend/observe/audit.h"
#include "backend/observe/log.h"
#include "backend/operations/session_access.h"
#include "backend/server.h"
#include "backend/store/store.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>

namespace asio = boost::asio;
using namespace backend;

constexpr int EXIT_RUN_TIME = 1;
constexpr int EXIT_USAGE = 2;
constexpr auto GOODBYE_TIME = std::chrono::seconds(2);

static DeviceRegistry readRegistry(const COMMAND_LINE_T &line)
{
    std::vector<std::string> warnings;
    DeviceRegistry registry = loadRegistry(line.devices, warnings);
    for (const std::string &warning : warnings)
        logWarning("%s", warning.c_str());
    return registry;
}

static PolicyPtr readPolicy(const COMMAND_LINE_T &line)
{
    if (line.operators.empty()) return nullptr;
    std::vector<std::string> warnings;
    PolicyPtr policy = loadPolicy(line.operators, warnings);
    for (const std::string &warning : warnings)
        logWarning("%s", warning.c_str());
    return policy;
}

static std::shared_ptr<TLS_CONTEXT_T> readCertificate(const COMMAND_LINE_T &line)
{
    return line.is_plain ? nullptr : makeTlsContext(line.cert, line.key);
}

static std::shared_ptr<TLS_CONTEXT_T> readApiCertificate(const COMMAND_LINE_T &line)
{
    if (line.api.empty()) return nullptr;
    const bool has_own = !line.api_cert.empty();
    return makeTlsContext(has_own ? line.api_cert : line.cert, has_own ? line.api_key : line.key,
                          line.api_client_ca);
}

struct RELOAD_T {
    std::string read;   // names of files, with commas between
    std::string failed; // what was in use before stays
};

static void attempt(RELOAD_T &reload, const char *name, const std::function<void()> &step)
{
    std::string *outcome = &reload.read;
    try {
        step();
    } catch (const std::exception &fault) {
        logWarning("%s: what was in use stays", fault.what());
        outcome = &reload.failed;
    }
    if (!outcome->empty()) *outcome += ", ";
    *outcome += name;
}

static void tellReload(const RELOAD_T &reload, std::size_t devices)
{
    auditRecord(AUDIT_EVENT::RELOAD,
                {{"read", reload.read}, {"failed", reload.failed}, {"devices", devices}});
    if (reload.failed.empty())
        logInfo("files read again: %s; %zu devices registered", reload.read.c_str(), devices);
    else
        logWarning("files read again: %s; not read: %s; %zu devices registered",
                   reload.read.empty() ? "none" : reload.read.c_str(), reload.failed.c_str(),
                   devices);
}

// Called with the names of the files that could not be read.
using ReadAgain = std::function<void(const std::string &failed)>;

// Each file on its own: a broken one does not affect the others.
static void readFilesAgain(const COMMAND_LINE_T &line, SERVER_T &server, RegistryReload &registry,
                           ReadAgain done)
{
    RELOAD_T reload;
    attempt(reload, "audit", [] { reopenAudit(); });
    if (!line.is_plain) {
        attempt(reload, "certificate and key",
                [&] { server.device_port->tls = readCertificate(line); });
    }
    if (server.api)
        attempt(reload, "certificate, key and authority of the interface",
                [&] { server.api->tls = readApiCertificate(line); });
    if (server.operations.ssh_authority)
        attempt(reload, "authority of ssh",
                [&] { renewSshAuthority(*server.operations.ssh_authority); });
    if (!line.operators.empty())
        attempt(reload, "operators", [&] { replacePolicy(server.operations, readPolicy(line)); });
    registry.start([&server, reload, done = std::move(done)](const RELOADED_T &result) mutable {
        for (const std::string &warning : result.warnings)
            logWarning("%s", warning.c_str());
        attempt(reload, "devices", [&] {
            if (!result.fault.empty()) throw std::runtime_error(result.fault);
        });
        endForbiddenSessions(server.operations); // labels may have changed
        tellReload(reload, result.devices);
        done(reload.failed);
    });
}

// Records what ends with the io_context, too, and gives up on a reader that does not read.
struct AuditEnd {
    ~AuditEnd()
    {
        (void)stopAudit();
    }
};

// Before the io_context goes.
struct AuditMute {
    ~AuditMute()
    {
        muteAudit();
    }
};

// Until nothing is left to do for those that are closed.
static void sayGoodbye(asio::io_context &io)
{
    const auto end = std::chrono::steady_clock::now() + GOODBYE_TIME;
    io.restart();
    for (;;) {
        try {
            io.run_until(end);
            return;
        } catch (const std::exception &fault) {
            logWarning("a handler failed: %s", fault.what());
        }
    }
}

static void readOnSignal(asio::signal_set &changes, const std::function<void()> &read)
{
    changes.async_wait([&changes, read](const boost::system::error_code &error, int) {
        if (error) return;
        read();
        readOnSignal(changes, read);
    });
}

static void run(const COMMAND_LINE_T &line, SERVER_OPTIONS_T options)
{
    const AuditEnd audit_end;
    asio::io_context io{1};
    // Before anything takes its time: a signal that comes meanwhile is dealt with afterwards.
    asio::signal_set changes(io, SIGHUP);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    options.registry = readRegistry(line);
    options.policy = readPolicy(line);
    options.tls = readCertificate(line);
    options.api_tls = readApiCertificate(line);
    const AuditMute audit_mute;
    startAudit({line.audit, RA_VERSION,
                [&io](std::function<void()> task) { asio::post(io, std::move(task)); }});
    const auto server = startServer(io, std::move(options));
    RegistryReload registry_reload(io, server->directory, line.devices);
    server->operations.reload = [&](ReadAgain done) {
        readFilesAgain(line, *server, registry_reload, std::move(done));
    };
    MemoryTidy tidy(io);
    signals.async_wait([&](const boost::system::error_code &error, int number) {
        if (error) return;
        logInfo("ending on signal %d", number);
        io.stop(); // after this handler, also when it throws
        changes.cancel();
        tidy.stop();
        stopServer(*server);
    });
    readOnSignal(changes,
                 [&] { readFilesAgain(line, *server, registry_reload, [](const auto &) {}); });
    runHandlers(io);
    sayGoodbye(io);
}

// Of an administrator, at a terminal: no log.
static int runTask(const std::function<void()> &task)
{
    try {
        task();
        return fflush(stdout) == 0 ? 0 : EXIT_RUN_TIME;
    } catch (const std::invalid_argument &) {
        throw;
    } catch (const std::exception &fault) {
        (void)fprintf(stderr, "remote_access_backend: %s\n", fault.what());
        return EXIT_RUN_TIME;
    }
}

// NOLINTNEXTLINE(bugprone-exception-escape): only a mistake in the table of options gets out
int main(int argc, char **argv)
{
    (void)signal(SIGHUP, SIG_IGN);  // until it is waited for
    (void)signal(SIGPIPE, SIG_IGN); // a lost peer shows in the write's result
    (void)signal(SIGXFSZ, SIG_IGN); // and so does a file that may not grow
    prepareMemory();
    raiseDescriptorLimit();
    CLI::App app{"The back end: devices connect to it, and operators reach their services "
                 "through it."};
    COMMAND_LINE_T line;
    SERVER_OPTIONS_T options;
    describeCommandLine(app, line);
    try {
        app.parse(argc, argv);
        if (line.task) return runTask(line.task);
        if (line.backup.empty())
            options = readOptions(line);
        else if (line.store.empty())
            throw std::invalid_argument("--store is required");
    } catch (const CLI::ParseError &fault) {
        return app.exit(fault) == 0 ? 0 : EXIT_USAGE;
    } catch (const std::invalid_argument &fault) {
        (void)fprintf(stderr, "%s\nRun with --help for more information.\n", fault.what());
        return EXIT_USAGE;
    }
    int status = 0;
    try {
        startLog();
        if (line.backup.empty())
            run(line, std::move(options));
        else
            backUpStore(line.store, line.backup, line.is_forced);
    } catch (const std::exception &fault) {
        logError("%s", fault.what());
        status = EXIT_RUN_TIME;
    }
    stopLog();
    return status;
}
