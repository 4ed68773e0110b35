#include "backend/command_line.h"

#include "backend/admin/admin.h"
#include "backend/net/endpoint.h"
#include "backend/options.h"

#include <chrono>
#include <stdexcept>

#include <CLI/CLI.hpp>

namespace backend {

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

static void describeLimits(CLI::App &app, COMMAND_LINE_T &line)
{
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
}

static void describeApi(CLI::App &app, COMMAND_LINE_T &line)
{
    CLI::Option *const api =
        app.add_option("--api", line.api,
                       "Address and port of the HTTPS interface for operators; port 0: a free one")
            ->type_name("ADDRESS:PORT");
    CLI::Option *const cert =
        app.add_option("--api-cert", line.api_cert,
                       "Certificate of the interface with its chain, PEM; default: that of --cert")
            ->type_name("FILE")
            ->needs(api);
    CLI::Option *const key =
        app.add_option("--api-key", line.api_key, "Private key of that certificate, PEM")
            ->type_name("FILE");
    cert->needs(key);
    key->needs(cert);
    app.add_option("--api-client-ca", line.api_client_ca,
                   "Authority of operators' certificates, PEM; without it only tokens are taken")
        ->type_name("FILE")
        ->needs(api);
    app.add_option("--api-rate", line.api_rate,
                   "Requests a second that one operator may make for good; at once four times as "
                   "many")
        ->type_name("NUMBER")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
}

static void describeSsh(CLI::App &app, COMMAND_LINE_T &line)
{
    CLI::Option *const ca =
        app.add_option("--ssh-ca", line.ssh_ca,
                       "Private key that signs operators' certificates for ssh, without passphrase")
            ->type_name("FILE");
    app.add_option("--ssh-certificate-minutes", line.ssh_certificate_min,
                   "How long such a certificate is good")
        ->type_name("N")
        ->capture_default_str()
        ->check(CLI::Range(1, 60))
        ->needs(ca);
}

static void describeServer(CLI::App &app, COMMAND_LINE_T &line)
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
           "--control", line.control,
           "Socket for the operators' tool; without --operators everyone who may write to it can "
           "reach every device")
        ->type_name("PATH");
    app.add_option("--operators", line.operators,
                   "Policy: who may do what with which devices (JSON); without it everyone who "
                   "may write to the control socket may do everything")
        ->type_name("FILE");
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

void describeCommandLine(CLI::App &app, COMMAND_LINE_T &line)
{
    describeServer(app, line);
    describeApi(app, line);
    describeSsh(app, line);
    describeLimits(app, line);
    describeBackup(app, line);
    describeAdmin(
        app,
        [&line]() -> INSTALLATION_T {
            return {line.devices, line.operators, line.control,
                    line.listen,  line.cert,      line.is_plain};
        },
        line.task);
}

SERVER_OPTIONS_T readOptions(const COMMAND_LINE_T &line)
{
    SERVER_OPTIONS_T options;
    options.listen = parseEndpoint(line.listen);
    for (const std::string &text : line.forwards)
        options.forwards.push_back(parseForward(text));
    if (!line.is_plain && line.cert.empty())
        throw std::invalid_argument("either --cert and --key or --plain is required");
    if (!line.api.empty()) options.api = parseEndpoint(line.api);
    if (options.api && line.operators.empty())
        throw std::invalid_argument("--api needs --operators");
    if (options.api && line.is_plain && line.api_cert.empty())
        throw std::invalid_argument("--api with --plain needs --api-cert and --api-key: the "
                                    "interface is never without TLS");
    options.control = line.control;
    if (!line.ssh_ca.empty() && line.operators.empty())
        throw std::invalid_argument("--ssh-ca needs --operators");
    options.ssh_ca = line.ssh_ca;
    options.certificate_life = std::chrono::minutes(line.ssh_certificate_min);
    options.store = line.store;
    options.limits.operator_rate = line.api_rate;
    options.limits.session_buffer = line.session_backlog_mib << 20;
    options.limits.all_buffers = line.all_backlogs_mib << 20;
    options.limits.linger_time = std::chrono::milliseconds(static_cast<long>(line.linger_s * 1000));
    return options;
}

} // namespace backend
