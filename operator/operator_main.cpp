// remote-access: the operator's command line.
#include "operator/command_names.h"
#include "operator/commands/commands.h"
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

constexpr char DEVICE_HELP[] = "Its name, or PRODUCT_KEY:NAME";
constexpr char TARGET_HELP[] = "DEVICE/SERVICE; DEVICE alone for its only service of ssh";

constexpr char NO_KEEP_HELP[] = "End with the line, also where the device could keep the session";

using COMMAND_FUNC_T = int (*)(const OPERATOR_OPTIONS_T &);

CLI::App *addCommand(CLI::App &app, const char *name, const char *help, COMMAND_FUNC_T run,
                     COMMAND_FUNC_T &chosen)
{
    CLI::App *const command = app.add_subcommand(name, help);
    command->callback([&chosen, run] { chosen = run; });
    return command;
}

// For a name in front of several commands.
CLI::App *addFamily(CLI::App &app, const char *name, const char *help, const char *members)
{
    CLI::App *const family = app.add_subcommand(name, help);
    family->callback([family, members] {
        if (family->get_subcommands().empty())
            throw CLI::ValidationError(family->get_name(),
                                       std::string("behind it is missing ") + members);
    });
    return family;
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
    command = addCommand(app, "device", "Show what is known of a device", showDevice, chosen);
    command->add_option("device", options.device, DEVICE_HELP)->required();
    command->add_flag("--json", options.json, "As JSON, on one line");
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
    command->add_option("target", options.target, TARGET_HELP)->required();
    CLI::Option *const port =
        command->add_option("port", options.port, "Port of 127.0.0.1; default: a free one");
    command->add_option("--socket", options.socket, "A Unix socket at this path instead of a port")
        ->type_name("PATH")
        ->excludes(port);
    command->add_flag("--shared", options.shared,
                      "Serve every account of this machine, not only your own");
    command->add_flag("--no-keep", options.no_keep, NO_KEEP_HELP);
    command = addCommand(app, "connect",
                         "Connect standard input and output to a service, for ssh's ProxyCommand",
                         connectStreams, chosen);
    command->add_option("target", options.target, TARGET_HELP)->required();
    command->add_flag("--progress", options.progress, "Show bytes and rates on standard error");
    command->add_flag("--no-keep", options.no_keep, NO_KEEP_HELP);
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
    CLI::App *const audit =
        addFamily(app, "audit", "Work with the files of the audit", "\"verify\"");
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
}

void describeIdentity(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *command = addCommand(app, "login", "Log in to a back end elsewhere", logIn, chosen);
    command->add_option("url", options.url, "https://HOST or https://HOST:PORT")
        ->type_name("URL")
        ->required();
    command
        ->add_option("--ca", options.ca,
                     "What has signed the back end's certificate; default: the system's list")
        ->type_name("FILE");
    CLI::Option *const token =
        command
            ->add_option("--token-file", options.token_file,
                         "Read the token from it instead of the terminal; -: standard input")
            ->type_name("FILE");
    CLI::Option *const certificate =
        command
            ->add_option("--client-cert", options.certificate,
                         "Certificate to log in with instead of a token")
            ->type_name("FILE")
            ->excludes(token);
    CLI::Option *const key = command->add_option("--client-key", options.key, "Its key")
                                 ->type_name("FILE")
                                 ->needs(certificate);
    certificate->needs(key);
    command = addCommand(app, "logout", "Forget a login", logOut, chosen);
    command->add_option("url", options.url, "Default: the usual one")->type_name("URL");
    command =
        addCommand(app, "whoami", "Show who the back end takes you for", showIdentity, chosen);
    command->add_flag("--json", options.json, "As JSON, on one line");
    command = addCommand(app, "can", "Ask whether something is allowed; exit status 1: it is not",
                         showPermission, chosen);
    command->add_option("target", options.target, "DEVICE or DEVICE/SERVICE")->required();
    command
        ->add_option("--verb", options.verb,
                     "list, connect, verify, close, open or manage; default: connect for a "
                     "service, list for a device")
        ->type_name("VERB");
    command->add_flag("--json", options.json, "As JSON, on one line");
}

void describeTokens(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *const family = addFamily(app, "token", "Your tokens, for logins elsewhere",
                                       "\"make\", \"list\" or \"revoke\"");
    CLI::App *command = addCommand(*family, "make", "Make one, and print it", makeToken, chosen);
    command->add_option("--label", options.label, "What it is for, as \"laptop\"")
        ->type_name("TEXT")
        ->required();
    command->add_option("--days", options.days, "How long it is good; default: 90")
        ->type_name("N")
        ->check(CLI::Range(1, 366));
    command->add_flag("--json", options.json, "As JSON, on one line");
    command = addCommand(*family, "list", "List them", showTokens, chosen);
    addListOptions(*command, options);
    command = addCommand(*family, "revoke", "End one, and those that were made with it",
                         revokeToken, chosen);
    command->add_option("id", options.token, "Its identifier, as in \"token list\"")->required();
}

void describeSsh(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    CLI::App *command = addCommand(
        app, "ssh", "Log in with ssh: with recorded host keys, and a certificate if there is one",
        runSshSession, chosen);
    command
        ->add_option("target", options.target,
                     "[ACCOUNT@]DEVICE, or [ACCOUNT@]DEVICE/SERVICE; what follows is for ssh")
        ->required();
    command
        ->add_option("--identity", options.identity,
                     "Your private key, with FILE.pub; default: a new one for each login")
        ->type_name("FILE");
    command->prefix_command();
    command->callback([command, &options, &chosen] {
        options.arguments = command->remaining();
        chosen = runSshSession;
    });
    command = addCommand(app, "ssh-known-hosts",
                         "Have the host keys of a device recorded or compared, and print them",
                         showKnownHosts, chosen);
    command->add_option("target", options.target, TARGET_HELP)->required();
    CLI::Option *const recorded = command->add_flag(
        "--recorded", options.recorded, "Only what is recorded; the device is not asked");
    CLI::Option *const forget = command->add_flag(
        "--forget", options.forget, "Forget them, after checking why they have changed");
    CLI::Option *const append =
        command->add_option("--append", options.file, "Add the lines that are missing in it")
            ->type_name("FILE");
    forget->excludes(recorded)->excludes(append);
    command = addCommand(app, "ssh-config",
                         "Print the lines for ~/.ssh/config by which ssh reaches devices",
                         showSshConfig, chosen);
    command->add_option("pattern", options.pattern, "The devices' names, as \"gw-*\"; default: *")
        ->type_name("PATTERN");
    command->add_flag("--full", options.full, "With the host keys that the back end has recorded");
}

void describe(CLI::App &app, OPERATOR_OPTIONS_T &options, COMMAND_FUNC_T &chosen)
{
    app.set_version_flag("--version", "remote-access " RA_VERSION);
    CLI::Option *const control =
        app.add_option("--control", options.choice.control,
                       std::string("Control socket of a back end on this machine; default: "
                                   "$REMOTE_ACCESS_CONTROL, ") +
                           DEFAULT_CONTROL)
            ->type_name("PATH");
    app.add_option("--server", options.choice.server,
                   "Back end of a login, or \"local\" for the control socket; default: "
                   "$REMOTE_ACCESS_SERVER, the control socket if there is one, the last login")
        ->type_name("URL")
        ->excludes(control);
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
    describeIdentity(app, options, chosen);
    describeTokens(app, options, chosen);
    describeSsh(app, options, chosen);
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

// Commands that work on files of this machine.
bool needsBackEnd(COMMAND_FUNC_T command)
{
    return command != verifyAudit && command != logIn && command != logOut;
}

// What is typed counts before the environment.
SERVER_CHOICE_T completed(SERVER_CHOICE_T typed)
{
    const auto from = [](const char *name) {
        const char *const value = std::getenv(name);
        return std::string(value == nullptr ? "" : value);
    };
    if (typed.server.empty() && typed.control.empty()) typed.server = from("REMOTE_ACCESS_SERVER");
    if (typed.control.empty()) typed.control = from("REMOTE_ACCESS_CONTROL");
    return typed;
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
    options.pattern = "*";
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
        if (needsBackEnd(chosen))
            options.back_end = backEndAt(chooseServer(completed(options.choice)));
        return finish(chosen(options));
    } catch (const RequestError &fault) {
        return fail(fault, fault.is_unreachable ? OPERATOR_UNREACHABLE : OPERATOR_REFUSED);
    } catch (const std::invalid_argument &fault) {
        return fail(fault, OPERATOR_USAGE);
    } catch (const std::exception &fault) {
        return fail(fault, OPERATOR_REFUSED);
    }
}
