// remote-access: the operator's command line.
#include "operator/command_names.h"
#include "operator/commands.h"
#include "operator/control_client.h"
#include "operator/terminal.h"
#include "utility/standard_output.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char DEFAULT_CONTROL[] = "/run/remote-access/control";
constexpr char DEVICE_HELP[] = "Its name, or PRODUCT_KEY:NAME";

using COMMAND_FUNC_T = int (*)(const OPERATOR_OPTIONS_T &);

CLI::App *addCommand(CLI::App &app, const char *name, const char *help, COMMAND_FUNC_T run,
                     COMMAND_FUNC_T &chosen)
{
    CLI::App *const command = app.add_subcommand(name, help);
    command->callback([&chosen, run] { chosen = run; });
    return command;
}

void addListOptions(CLI::App &command, OPERATOR_OPTIONS_T &options)
{
    CLI::Option *const json = command.add_flag("--json", options.json, "As JSON, on one line");
    command
        .add_flag("--names", options.names, "Only what other commands name them by, one on a line")
        ->excludes(json);
}

void describeLists(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *command =
        addCommand(app, "devices", "List the registered devices, and which are connected",
                   showDevices, chosen);
    command->add_option("pattern", options.patterns,
                        "Only those whose name or PRODUCT_KEY:NAME matches, as \"gw-*\"");
    command->add_flag("--away", options.away,
                      "Only those that are away: when, from where and why they were last seen");
    addListOptions(*command, options);
    command = addCommand(app, "services", "List the services of a device", showServices, chosen);
    command->add_option("device", options.device, DEVICE_HELP)->required();
    addListOptions(*command, options);
    command = addCommand(app, "sessions", "List the open sessions", showSessions, chosen);
    addListOptions(*command, options);
    command
        ->add_flag(
            "--watch", options.watch,
            "List every second, with the rates, until Ctrl-C; with --json a line every second")
        ->excludes("--names");
    command = addCommand(app, "status", "Show the version and the metrics of the back end",
                         showStatus, chosen);
    command->add_flag("--json", options.json, "As JSON, on one line");
}

void describeSessions(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *command =
        addCommand(app, "forward", "Forward a local port to a service", forwardPort, chosen);
    command->add_option("target", options.target, "DEVICE/SERVICE")->required();
    CLI::Option *const port =
        command->add_option("port", options.port, "Port of 127.0.0.1; default: a free one");
    command->add_option("--socket", options.socket, "A Unix socket at this path instead of a port")
        ->type_name("PATH")
        ->excludes(port);
    command->add_flag("--shared", options.shared,
                      "Serve every account of this machine, not only your own");
    command = addCommand(app, "connect",
                         "Connect standard input and output to a service, for ssh's ProxyCommand",
                         connectStreams, chosen);
    command->add_option("target", options.target, "DEVICE/SERVICE")->required();
    command->add_flag("--progress", options.progress, "Show bytes and rates on standard error");
    command = addCommand(app, "close", "Cut off an open session", closeSession, chosen);
    command->add_option("session", options.session, "Its identifier, as in \"sessions\"")
        ->required();
    command = addCommand(app, "disconnect", "Close a device's channel; the device connects again",
                         disconnectDevice, chosen);
    command->add_option("device", options.device, DEVICE_HELP)->required();
    command->add_option("--reason", options.reason, "For the audit")->type_name("TEXT");
}

void describeAudit(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *const audit = app.add_subcommand("audit", "Work with the files of the audit");
    CLI::App *const command = addCommand(
        *audit, "verify", "Check that no line was changed, cut or taken out", verifyAudit, chosen);
    command->add_option("file", options.files, "The files, oldest first; -: standard input")
        ->type_name("FILE")
        ->required();
    command
        ->add_option("--expect", options.expected,
                     "Hash of a line that must be there, from the log or an earlier check")
        ->type_name("HASH");
    command->add_flag("--json", options.json, "As JSON, on one line");
    audit->callback([audit] {
        if (audit->get_subcommands().empty())
            throw CLI::ValidationError("audit", "the command \"verify\" is missing behind it");
    });
}

void describe(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    app.set_version_flag("--version", "remote-access " RA_VERSION);
    app.add_option("--control", options.control, "Control socket of the back end")
        ->envname("REMOTE_ACCESS_CONTROL")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option(
           "--timeout", options.timeout_s,
           "Give up when an answer takes longer; default: 10, or 60 where the device answers")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    describeLists(app, options, chosen);
    describeSessions(app, options, chosen);
    CLI::App *const command = addCommand(
        app, "verify", "Ask a device to check the password of an account", verifyAccount, chosen);
    command->add_option("device", options.device, DEVICE_HELP)->required();
    command->add_option("user", options.user, "The account")->required();
    command->add_flag("--password-stdin", options.password_stdin,
                      "Read the password from standard input instead of the terminal");
    describeAudit(app, options, chosen);
    app.footer(
        "Exit status: 0 success; 1 refused, failed, or a session was cut off; 2 invalid command\n"
        "line; 3 the back end cannot be reached.");
}

// For a command line without a command: which one was meant, or which there are.
int tellCommands(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(command->get_name());
    std::string word;
    for (const std::string &rest : app.remaining())
        if (word.empty() && !rest.starts_with('-')) word = rest;
    std::string text =
        word.empty() ? "a command is missing" : "there is no command \"" + word + "\"";
    const std::string nearest = nearestName(word, names);
    if (!nearest.empty()) {
        text += "; did you mean \"" + nearest + "\"?";
    } else {
        text += "; the commands are";
        for (std::size_t i = 0; i < names.size(); ++i)
            text += (i == 0 ? " " : ", ") + names[i];
    }
    (void)std::fprintf(stderr, "remote-access: %s\n", shown(text).c_str());
    return OPERATOR_USAGE;
}

int fail(const std::exception &fault, OPERATOR_STATUS status)
{
    (void)std::fprintf(stderr, "remote-access: %s\n", shown(fault.what()).c_str());
    return status;
}

int finish(int status)
{
    if (flush_output("remote-access")) return status;
    return status == OPERATOR_DONE ? OPERATOR_REFUSED : status;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): only a mistake in the table of options gets out
int main(int argc, char **argv)
{
    (void)std::signal(SIGPIPE, SIG_IGN); // a lost peer shows in the write's result
    CLI::App app{"Reaches the services of remote gateways through the back end."};
    OPERATOR_OPTIONS_T options;
    options.control = DEFAULT_CONTROL;
    COMMAND_FUNC_T chosen = nullptr;
    describe(app, options, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &fault) {
        if (fault.get_exit_code() != 0 && chosen == nullptr && app.get_subcommands().empty() &&
            (app.remaining().empty() || !app.remaining().front().starts_with('-')))
            return tellCommands(app);
        return finish(app.exit(fault) == 0 ? OPERATOR_DONE : OPERATOR_USAGE);
    }
    if (chosen == nullptr) return tellCommands(app);
    try {
        return finish(chosen(options));
    } catch (const ControlError &fault) {
        return fail(fault, fault.is_unreachable ? OPERATOR_UNREACHABLE : OPERATOR_REFUSED);
    } catch (const std::invalid_argument &fault) {
        return fail(fault, OPERATOR_USAGE);
    } catch (const std::exception &fault) {
        return fail(fault, OPERATOR_REFUSED);
    }
}
