// The back end's command line and configuration file.
// Exit status  0 after SIGINT or SIGTERM, 1 when something cannot be used at run time, 2 for a
// wrong command line.
#include "backend/net/endpoint.h"
#include "backend/net/listener.h"
#include "backend/net/memory.h"
#include "backend/observe/audit.h"
#include "backend/observe/log.h"
#include "backend/options.h"
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

struct COMMAND_LINE_T {
    std::string listen;
    std::string cert;
    std::string key;
    std::string devices;
    std::vector<std::string> forwards;
    std::string control;
    std::string audit = "-";
    std::string store;
    std::string backup; // target; empty: no backup is asked for
    bool is_forced = false;
    bool is_plain = false;
    double linger_s = 30;
    std::size_t session_backlog_mib = LIMITS_T{}.session_buffer >> 20;
    std::size_t all_backlogs_mib = LIMITS_T{}.all_buffers >> 20;
};

// A copy of the store needs none of the server's options.
static void describeBackup(CLI::App &app, COMMAND_LINE_T &line)
{
    CLI::App *backup = app.add_subcommand("backup", "Copy the store, also while the back end runs");
    backup->fallthrough();
    backup->add_option("TARGET", line.backup, "File of the copy")->required();
    backup->add_flag("--force", line.is_forced, "Replace an existing file");
    backup->preparse_callback([&app](std::size_t) {
        for (CLI::Option *option : app.get_options())
            option->required(false);
    });
}

static void describeOptions(CLI::App &app, COMMAND_LINE_T &line)
{
    app.add_option("--listen", line.listen, "Address and port for devices; port 0: a free one")
        ->type_name("ADDRESS:PORT")
        ->required();
    app.add_option("--devices", line.devices, "List of the devices that may connect (JSON)")
        ->type_name("FILE")
        ->required();
    auto *cert =
        app.add_option("--cert", line.cert, "Certificate of the back end with its chain, PEM")
            ->type_name("FILE");
    auto *key =
        app.add_option("--key", line.key, "Private key of the certificate, PEM")->type_name("FILE");
    app.add_flag("--plain", line.is_plain, "Do not use TLS; for tests on one machine only")
        ->excludes(cert)
        ->excludes(key);
    cert->needs(key);
    key->needs(cert);
    app.add_option("--forward", line.forwards,
                   "Forward LOCAL_PORT (or ADDRESS:PORT) to a service of a device; may be given "
                   "several times")
        ->type_name("LOCAL_PORT=DEVICE/SERVICE_NAME")
        ->allow_extra_args(false)
        ->take_all();
    app.add_option(
           "--linger", line.linger_s,
           "Seconds without data after which a session ends once its client has ended sending")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    app.add_option("--session-backlog", line.session_backlog_mib,
                   "MiB from a device that may wait for a client; a session with more is cut off")
        ->type_name("MIB")
        ->capture_default_str()
        ->check(CLI::Range(1, 1024));
    app.add_option("--all-backlogs", line.all_backlogs_mib,
                   "MiB that may wait for all clients; above it the session with most is cut off")
        ->type_name("MIB")
        ->capture_default_str()
        ->check(CLI::Range(1, 65536));
    app.add_option(
           "--control", line.control,
           "Socket for the operators' tool; everyone who may write to it can reach every device")
        ->type_name("PATH");
    app.add_option("--store", line.store,
                   "File for what the back end learns while it runs; made where there is none")
        ->type_name("FILE");
    app.add_option("--audit", line.audit,
                   "File for the audit, one line of JSON for each event; -: standard output, "
                   "which cannot be read back after a crash")
        ->type_name("FILE")
        ->capture_default_str();
    app.set_config(
           "--config", "",
           "File with these options, one \"name=value\" per line (TOML or INI); options on the "
           "command line take precedence")
        ->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error); // an unknown option is an error
    app.set_version_flag("--version", "remote_access_backend " RA_VERSION);
}

// The checks that need only the command line; files are read afterwards.
static SERVER_OPTIONS_T readOptions(const COMMAND_LINE_T &line)
{
    SERVER_OPTIONS_T options;
    options.listen = parseEndpoint(line.listen);
    for (const std::string &text : line.forwards)
        options.forwards.push_back(parseForward(text));
    if (!line.is_plain && line.cert.empty())
        throw std::invalid_argument("either --cert and --key or --plain is required");
    options.control = line.control;
    options.store = line.store;
    options.limits.session_buffer = line.session_backlog_mib << 20;
    options.limits.all_buffers = line.all_backlogs_mib << 20;
    options.limits.linger_time = std::chrono::milliseconds(static_cast<long>(line.linger_s * 1000));
    return options;
}

static DEVICE_REGISTRY_T readRegistry(const COMMAND_LINE_T &line)
{
    std::vector<std::string> warnings;
    DEVICE_REGISTRY_T registry = loadRegistry(line.devices, warnings);
    for (const std::string &warning : warnings)
        logWarning("%s", warning.c_str());
    return registry;
}

static std::shared_ptr<TLS_CONTEXT_T> readCertificate(const COMMAND_LINE_T &line)
{
    return line.is_plain ? nullptr : makeTlsContext(line.cert, line.key);
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

// Each file on its own: a broken one does not affect the others.
static void readFilesAgain(const COMMAND_LINE_T &line, SERVER_T &server)
{
    RELOAD_T reload;
    attempt(reload, "audit", [] { reopenAudit(); });
    if (!line.is_plain) {
        attempt(reload, "certificate and key",
                [&] { server.device_port->tls = readCertificate(line); });
    }
    attempt(reload, "devices", [&] { replaceRegistry(server.directory, readRegistry(line)); });
    const std::size_t count = server.directory.registry.size();
    auditRecord(AUDIT_EVENT::RELOAD,
                {{"read", reload.read}, {"failed", reload.failed}, {"devices", count}});
    if (reload.failed.empty())
        logInfo("files read again: %s; %zu devices registered", reload.read.c_str(), count);
    else
        logWarning("files read again: %s; not read: %s; %zu devices registered",
                   reload.read.empty() ? "none" : reload.read.c_str(), reload.failed.c_str(),
                   count);
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

static void run(const COMMAND_LINE_T &line, SERVER_OPTIONS_T options)
{
    const AuditEnd audit_end;
    asio::io_context io{1};
    // Before anything takes its time: a signal that comes meanwhile is dealt with afterwards.
    asio::signal_set changes(io, SIGHUP);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    options.registry = readRegistry(line);
    options.tls = readCertificate(line);
    const AuditMute audit_mute;
    startAudit({line.audit, RA_VERSION,
                [&io](std::function<void()> task) { asio::post(io, std::move(task)); }});
    const auto server = startServer(io, std::move(options));
    MemoryTidy tidy(io);
    signals.async_wait([&](const boost::system::error_code &error, int number) {
        if (error) return;
        logInfo("ending on signal %d", number);
        io.stop(); // after this handler, also when it throws
        changes.cancel();
        tidy.stop();
        stopServer(*server);
    });
    const std::function<void()> wait_for_change = [&] {
        changes.async_wait([&](const boost::system::error_code &error, int) {
            if (error) return;
            readFilesAgain(line, *server);
            wait_for_change();
        });
    };
    wait_for_change();
    runHandlers(io);
    sayGoodbye(io);
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
    describeOptions(app, line);
    describeBackup(app, line);
    try {
        app.parse(argc, argv);
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
