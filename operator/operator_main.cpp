// remote-access: the operator's command line.
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

namespace {

constexpr char DEFAULT_CONTROL[] = "/run/remote-access/control";

using COMMAND_FUNC_T = int (*)(const OPERATOR_OPTIONS_T &);

CLI::App *addCommand(CLI::App &app, const char *name, const char *help, COMMAND_FUNC_T run,
                     COMMAND_FUNC_T &chosen)
{
    CLI::App *const command = app.add_subcommand(name, help);
    command->callback([&chosen, run] { chosen = run; });
    return command;
}

void describe(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    app.require_subcommand(1);
    app.set_version_flag("--version", "remote-access " RA_VERSION);
    app.add_option("--control", options.control, "Control socket of the back end")
        ->envname("REMOTE_ACCESS_CONTROL")
        ->type_name("PATH")
        ->capture_default_str();
    CLI::App *command =
        addCommand(app, "devices", "List the registered devices, and which are connected",
                   showDevices, chosen);
    command->add_flag("--json", options.json, "As a JSON array");
    command = addCommand(app, "services", "List the services of a device", showServices, chosen);
    command->add_option("device", options.device, "Its name, or PRODUCT_KEY:NAME")->required();
    command->add_flag("--json", options.json, "As a JSON array");
    command = addCommand(app, "sessions", "List the open sessions", showSessions, chosen);
    command->add_flag("--json", options.json, "As a JSON array");
    command->add_flag("--watch", options.watch, "List every second, with the rates, until Ctrl-C");
    command = addCommand(app, "forward", "Forward a local port to a service", forwardPort, chosen);
    command->add_option("target", options.target, "DEVICE/SERVICE")->required();
    command->add_option("port", options.port, "Port of 127.0.0.1; default: a free one");
    command = addCommand(app, "connect",
                         "Connect standard input and output to a service, for ssh's ProxyCommand",
                         connectStreams, chosen);
    command->add_option("target", options.target, "DEVICE/SERVICE")->required();
    command->add_flag("--progress", options.progress, "Show bytes and rates on standard error");
    command = addCommand(app, "verify", "Ask a device to check the password of an account",
                         verifyAccount, chosen);
    command->add_option("device", options.device, "Its name, or PRODUCT_KEY:NAME")->required();
    command->add_option("user", options.user, "The account")->required();
    command->add_flag("--password-stdin", options.password_stdin,
                      "Read the password from standard input instead of the terminal");
    app.footer(
        "Exit status: 0 success; 1 refused, failed, or a session was cut off; 2 invalid command\n"
        "line; 3 the back end cannot be reached.");
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
        return finish(app.exit(fault) == 0 ? OPERATOR_DONE : OPERATOR_USAGE);
    }
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
