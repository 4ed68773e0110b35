#include "backend/admin/admin.h"

#include "backend/admin/device_commands.h"
#include "backend/admin/init_command.h"
#include "backend/admin/token_command.h"

#include <memory>

#include <CLI/CLI.hpp>

namespace backend {

constexpr const char *GATEWAY_CA = "/etc/remote-access/ca.pem";

struct CONTEXT_T {
    CLI::App &app;
    std::function<INSTALLATION_T()> installation;
    std::function<void()> &task;
};

// What a subcommand was told; its options write into it.
template <class ARGUMENTS>
using Command = void (*)(const INSTALLATION_T &installation, const ARGUMENTS &arguments);

// None of these commands needs the server's own options.
static CLI::App *addCommand(const CONTEXT_T &context, CLI::App &parent, const char *name,
                            const char *help)
{
    CLI::App *command = parent.add_subcommand(name, help);
    command->fallthrough();
    command->preparse_callback([&app = context.app](std::size_t) {
        for (CLI::Option *option : app.get_options())
            option->required(false);
    });
    return command;
}

template <class ARGUMENTS>
static void runAs(CLI::App *command, const CONTEXT_T &context,
                  const std::shared_ptr<ARGUMENTS> &arguments, Command<ARGUMENTS> run)
{
    command->callback([=] { context.task = [=] { run(context.installation(), *arguments); }; });
}

static void addNames(CLI::App *command, std::vector<std::string> &names)
{
    command->add_option("NAME", names, "Devices: NAME, or PRODUCT:NAME");
}

static void addWhere(CLI::App *command, std::vector<std::string> &where, const char *name)
{
    command->add_option(name, where, "Devices with this label; the value is a shell pattern")
        ->type_name("LABEL=PATTERN")
        ->allow_extra_args(false)
        ->take_all();
}

static void addGateway(CLI::App *command, bool &prints, GATEWAY_T &gateway)
{
    command->add_flag("--print-settings", prints,
                      "Print what the gateway's configuration manager has to be told, with the "
                      "secret");
    command
        ->add_option("--host", gateway.host,
                     "The back end as gateways reach it; else the first name in --cert")
        ->type_name("HOST");
    gateway.ca_path = GATEWAY_CA;
    command->add_option("--gateway-ca", gateway.ca_path, "The CA's certificate on the gateway")
        ->type_name("PATH")
        ->capture_default_str();
}

static void addDry(CLI::App *command, CHANGE_T &change)
{
    command->add_flag("--dry-run", change.is_dry, "Say which devices are meant, change nothing");
}

static void describeAdd(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command =
        addCommand(context, device, "add", "Register devices, each with a secret of its own");
    const auto add = std::make_shared<ADD_T>();
    command->add_option("NAME", add->names, "Names of the devices")->required();
    command->add_option("--product", add->product, "Their product key")
        ->type_name("KEY")
        ->required();
    command->add_option("--label", add->labels, "A label that they get")
        ->type_name("LABEL=VALUE")
        ->allow_extra_args(false)
        ->take_all();
    command->add_flag("--secret-stdin", add->reads_secret,
                      "Read the secret from standard input, in place of making one");
    addGateway(command, add->prints_settings, add->gateway);
    runAs<ADD_T>(command, context, add, addDevices);
}

static void describeList(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command = addCommand(context, device, "list", "List the devices and their labels");
    const auto list = std::make_shared<LIST_T>();
    command->add_option("PATTERN", list->pattern, "Shell pattern of NAME or PRODUCT:NAME");
    addWhere(command, list->where, "--label");
    command->add_flag("--json", list->is_json, "Print JSON");
    runAs<LIST_T>(command, context, list, listDevices);
}

static void describeShow(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command = addCommand(context, device, "show", "Show one device");
    const auto show = std::make_shared<SHOW_T>();
    command->add_option("NAME", show->name, "NAME, or PRODUCT:NAME")->required();
    command->add_flag("--secret", show->prints_secret, "Also the secret");
    addGateway(command, show->prints_settings, show->gateway);
    runAs<SHOW_T>(command, context, show, showDevice);
}

static void describeRemove(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command = addCommand(context, device, "remove",
                                   "Take devices out; those that are connected are cut off");
    const auto change = std::make_shared<CHANGE_T>();
    addNames(command, change->meant.names);
    addWhere(command, change->meant.where, "--where");
    addDry(command, *change);
    command->add_flag("--yes", change->is_sure, "Also when more than one is meant");
    runAs<CHANGE_T>(command, context, change, removeDevices);
}

static void describeRotate(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command = addCommand(context, device, "rotate",
                                   "Give devices new secrets; the old ones stay valid for a while");
    const auto rotate = std::make_shared<ROTATE_T>();
    addNames(command, rotate->change.meant.names);
    addWhere(command, rotate->change.meant.where, "--where");
    command
        ->add_option("--keep-old", rotate->keep_old,
                     "How long: 90s, 15m, 8h, 7d; 0: not at all, for a secret that has leaked")
        ->type_name("TIME")
        ->capture_default_str();
    addDry(command, rotate->change);
    command->add_flag("--yes", rotate->change.is_sure,
                      "Also when an earlier old secret is still valid, which then is no more");
    addGateway(command, rotate->prints_settings, rotate->gateway);
    runAs<ROTATE_T>(command, context, rotate, rotateSecrets);
}

struct LABEL_T {
    CHANGE_T change;
    std::vector<std::string> arguments;
};

static void runLabel(const INSTALLATION_T &installation, const LABEL_T &label)
{
    labelDevices(installation, label.change, label.arguments);
}

static void describeLabel(const CONTEXT_T &context, CLI::App &device)
{
    CLI::App *command = addCommand(context, device, "label", "Change labels of devices");
    const auto label = std::make_shared<LABEL_T>();
    command
        ->add_option("NAME|CHANGE", label->arguments,
                     "Devices, labels that they get (LABEL=VALUE) or lose (LABEL-)")
        ->required();
    addWhere(command, label->change.meant.where, "--where");
    addDry(command, label->change);
    runAs<LABEL_T>(command, context, label, runLabel);
}

static void describeInit(const CONTEXT_T &context)
{
    CLI::App *command = addCommand(context, context.app, "init",
                                   "Make an installation: certificates, an operator with a "
                                   "token, an empty list of devices, options");
    const auto init = std::make_shared<INIT_T>();
    command->add_option("DIRECTORY", init->directory, "Where; made if it is not there")->required();
    command
        ->add_option("--name", init->names,
                     "Host name or address of the back end for gateways and operators; the first "
                     "one is what they are told")
        ->type_name("HOST")
        ->allow_extra_args(false)
        ->take_all();
    command->add_option("--operator", init->operator_name, "The operator; else this account")
        ->type_name("NAME");
    command->callback([init, context] {
        context.task = [init, context] {
            init->listen = context.installation().listen;
            const CLI::Option *api = context.app.get_option_no_throw("--api");
            init->has_api = api != nullptr;
            if (api != nullptr && api->count() > 0) init->api = api->as<std::string>();
            makeInstallation(*init);
        };
    });
}

static void describeToken(const CONTEXT_T &context)
{
    CLI::App *command =
        addCommand(context, context.app, "token", "Make a token of an operator, or take one away");
    const auto token = std::make_shared<TOKEN_T>();
    command->add_option("OPERATOR", token->operator_name, "Name of the operator")->required();
    auto *label =
        command->add_option("--label", token->label, "What the token is for")->type_name("TEXT");
    command->add_option("--days", token->days, "How long it is valid")
        ->type_name("DAYS")
        ->capture_default_str()
        ->check(CLI::Range(1, 3650));
    command->add_option("--remove", token->removed, "Take away the token with this label")
        ->type_name("LABEL")
        ->excludes(label);
    runAs<TOKEN_T>(command, context, token, changeTokens);
}

void describeAdmin(CLI::App &app, const std::function<INSTALLATION_T()> &installation,
                   std::function<void()> &task)
{
    const CONTEXT_T context{app, installation, task};
    describeInit(context);
    CLI::App *device =
        addCommand(context, app, "device", "Register, label, rotate, remove devices");
    device->require_subcommand(1);
    describeAdd(context, *device);
    describeList(context, *device);
    describeShow(context, *device);
    describeRemove(context, *device);
    describeRotate(context, *device);
    describeLabel(context, *device);
    describeToken(context);
}

} // namespace backend
