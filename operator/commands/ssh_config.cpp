// The command that prints lines for ssh's configuration.
#include "operator/commands/commands.h"
#include "operator/commands/proxy_command.h"
#include "operator/commands/requests.h"
#include "operator/commands/table.h"
#include "operator/terminal.h"

#include <cstdio>
#include <fnmatch.h>
#include <set>

using nlohmann::json;

namespace {

constexpr std::size_t DEVICES_ASKED_MAX = 8;

// The one name that the services of ssh have on the devices that could be asked; empty when they
// differ or no device could be asked: then "connect" finds it each time.
std::string commonSshService(const OPERATOR_OPTIONS_T &options)
{
    const auto time = waitOf(options, ANSWER_TIME);
    const json answer = ask(options.back_end,
                            {{"do", "devices"},
                             {"pattern", options.pattern},
                             {"state", "connected"},
                             {"limit", DEVICES_ASKED_MAX}},
                            time);
    std::set<std::string> names;
    std::size_t asked = 0;
    const json devices = answer.value("devices", json::array());
    for (const json &device : devices) {
        const std::string name = rawText(device, "device");
        if (::fnmatch(options.pattern.c_str(), name.c_str(), 0) != 0) continue;
        if (!device.value("connected", false) || ++asked > DEVICES_ASKED_MAX) continue;
        try {
            const std::string full = rawText(device, "product") + ":" + name;
            const json list = ask(options.back_end, {{"do", "services"}, {"device", full}}, time);
            const auto found = sshServices(list.value("services", json::array()));
            if (found.size() > 1) return "";
            names.insert(found.begin(), found.end());
        } catch (const RequestError &fault) {
            if (fault.is_unreachable) throw; // else it has gone away meanwhile
        }
    }
    return names.size() == 1 ? *names.begin() : "";
}

} // namespace

int showSshConfig(const OPERATOR_OPTIONS_T &options)
{
    const std::string service = commonSshService(options);
    // A device chooses its services' names, and ssh gives the line to a shell.
    const std::string suffix = service.empty() || !isPlain(service) ? "" : "/" + service;
    const std::string server = shown(serverOption(options));
    std::printf("Host %s\n    ProxyCommand remote-access%s connect %%n%s\n",
                shown(options.pattern).c_str(), server.c_str(), suffix.c_str());
    // ssh starts this one without a shell, and wants its whole path.
    if (options.full)
        std::printf("    KnownHostsCommand %s%s ssh-known-hosts --recorded %%n%s\n",
                    shown(toolPath()).c_str(), server.c_str(), suffix.c_str());
    return OPERATOR_DONE;
}
