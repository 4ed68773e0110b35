#include "operator/settings/choose_server.h"

#include "operator/settings/saved_servers.h"
#include "operator/settings/url.h"

#include <stdexcept>
#include <unistd.h>

namespace {

SERVER_T localServer(const std::string &control)
{
    SERVER_T server;
    server.control = control.empty() ? DEFAULT_CONTROL : control;
    return server;
}

SERVER_T savedServer(const SAVED_SERVERS_T &saved, const std::string &url)
{
    const auto found = saved.servers.find(url);
    if (found != saved.servers.end()) return found->second;
    throw std::runtime_error("there is no login for " + url +
                             "; log in with \"remote-access login " + url + "\"");
}

} // namespace

SERVER_T chooseServer(const SERVER_CHOICE_T &choice)
{
    if (choice.server == LOCAL_SERVER) return localServer(choice.control);
    if (!choice.server.empty()) return savedServer(loadServers(), serverUrl(choice.server));
    if (!choice.control.empty() || ::access(DEFAULT_CONTROL, F_OK) == 0)
        return localServer(choice.control);
    const SAVED_SERVERS_T saved = loadServers();
    return saved.usual.empty() ? localServer("") : savedServer(saved, saved.usual);
}
