#include "backend/admin/init_command.h"

#include "backend/admin/certificates.h"
#include "backend/admin/file_edit.h"
#include "backend/admin/token_command.h"
#include "backend/policy/token_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pwd.h>
#include <stdexcept>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/un.h>

namespace backend {

using nlohmann::ordered_json;

constexpr int TOKEN_DAYS = 90;
constexpr const char *CONTROL_NAME = "control";

struct MADE_FILE_T {
    std::string name;
    unsigned mode;
    std::string text;
};

// Removes what was made, unless all of it could be.
struct MADE_T {
    std::vector<std::string> files;
    std::string folder; // empty: it was there before
    MADE_T() = default;
    MADE_T(const MADE_T &) = delete;
    MADE_T &operator=(const MADE_T &) = delete;
    ~MADE_T()
    {
        for (const std::string &file : files)
            (void)unlink(file.c_str());
        if (!folder.empty()) (void)rmdir(folder.c_str());
    }
    void keep()
    {
        files.clear();
        folder.clear();
    }
};

static std::string accountName()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    const passwd *account = getpwuid(getuid());
    if (account == nullptr) throw std::runtime_error("this account has no name: use --operator");
    return account->pw_name;
}

static std::vector<std::string> allNames(const std::vector<std::string> &given)
{
    for (const std::string &name : given)
        if (!isHostName(name) && !isAddress(name))
            throw std::invalid_argument("\"" + name + "\" is no host name or address");
    std::vector<std::string> names = given;
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (gethostname(host.data(), host.size() - 1) == 0 && isHostName(host.data()))
        names.emplace_back(host.data());
    for (const char *own : {"localhost", "127.0.0.1", "::1"})
        names.emplace_back(own);
    std::vector<std::string> unique; // in their order: the first is what gateways are told
    for (const std::string &name : names)
        if (std::find(unique.begin(), unique.end(), name) == unique.end()) unique.push_back(name);
    return unique;
}

static std::string operatorsText(const std::string &name, const std::string &account,
                                 const std::string &token)
{
    const ordered_json root = {
        {"operators",
         {{{"name", name},
           {"accounts", {account}},
           {"tokens", ordered_json::array({tokenEntry(token, "init", TOKEN_DAYS)})}}}},
        {"operator_groups", ordered_json::object()},
        {"device_groups", ordered_json::object()},
        {"grants",
         {{{"name", "everything"},
           {"who", {name}},
           {"devices", {"*"}},
           {"services", {"*"}},
           {"verbs", {"list", "connect", "verify", "close", "open", "manage"}}}}}};
    return root.dump(2) + "\n";
}

static std::string optionsText(const std::string &folder, const std::string &listen,
                               const std::string &api)
{
    std::string text = "# Options of remote_access_backend, one \"name=value\" a line:"
                       " remote_access_backend(8).\n";
    const auto add = [&text](const char *name, const std::string &value) {
        text.append(name).append("=\"").append(value).append("\"\n");
    };
    add("listen", listen);
    if (!api.empty()) add("api", api);
    add("cert", folder + "backend.pem");
    add("key", folder + "backend.key");
    add("devices", folder + "devices.json");
    add("operators", folder + "operators.json");
    add("control", folder + CONTROL_NAME);
    add("store", folder + "store.db");
    add("audit", folder + "audit.json");
    return text;
}

// With a slash at its end.
static std::string openFolder(const std::string &directory, MADE_T &made)
{
    if (mkdir(directory.c_str(), S_IRWXU) == 0)
        made.folder = directory;
    else if (errno != EEXIST) // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is per thread
        throw std::runtime_error(directory + ": " + strerror(errno));
    const std::unique_ptr<char, decltype(&free)> real(realpath(directory.c_str(), nullptr), free);
    if (!real) throw std::runtime_error(directory + ": cannot be used");
    std::string folder = real.get() + std::string("/");
    if (folder.find_first_of("\"\\\n") != std::string::npos)
        throw std::runtime_error(directory + ": its name cannot stand in a file of options");
    if (folder.size() + strlen(CONTROL_NAME) >= sizeof(sockaddr_un::sun_path))
        throw std::runtime_error(directory + ": its name is too long for a socket in it");
    return folder;
}

static void refuseExisting(const std::string &folder, const std::vector<MADE_FILE_T> &files)
{
    for (const MADE_FILE_T &file : files) {
        struct stat status {};
        const std::string path = folder + file.name;
        if (lstat(path.c_str(), &status) == 0)
            throw std::runtime_error(path + " exists already: nothing was changed");
    }
}

// "HOST" or "[HOST]" and the port, for an URL.
static std::string urlHost(const std::string &name, const std::string &endpoint)
{
    const bool has_colon = name.find(':') != std::string::npos;
    return (has_colon ? "[" + name + "]" : name) + endpoint.substr(endpoint.rfind(':'));
}

void makeInstallation(const INIT_T &init)
{
    // Only root may listen on the ports below 1024.
    const std::string listen = !init.listen.empty() ? init.listen
                               : geteuid() == 0     ? "0.0.0.0:443"
                                                    : "0.0.0.0:7443";
    const std::string api = !init.has_api ? "" : init.api.empty() ? "0.0.0.0:8443" : init.api;
    for (const std::string &endpoint : {listen, api.empty() ? listen : api})
        if (endpoint.rfind(':') == std::string::npos ||
            endpoint.find_first_of("\"\\\n") != std::string::npos)
            throw std::invalid_argument("\"" + endpoint + "\" is no ADDRESS:PORT");
    const std::vector<std::string> names = allNames(init.names);
    const std::string account = accountName();
    const std::string name = init.operator_name.empty() ? account : init.operator_name;
    MADE_T made;
    const std::string folder = openFolder(init.directory, made);
    const std::string token = makeToken();
    const auto [authority, server] = makeCertificates(names);
    const std::vector<MADE_FILE_T> files{
        {"ca.key", 0600, authority.key},
        {"ca.pem", 0644, authority.certificate},
        {"backend.key", 0600, server.key},
        {"backend.pem", 0644, server.certificate},
        {"devices.json", 0600, "{\n  \"devices\": []\n}\n"},
        {"operators.json", 0600, operatorsText(name, account, token)},
        {"operator.token", 0600, token + "\n"},
        {"backend.conf", 0644, optionsText(folder, listen, api)},
    };
    (void)parsePolicy(files[5].text); // a name that it cannot have
    refuseExisting(folder, files);
    for (const MADE_FILE_T &file : files) {
        makeFile(folder + file.name, file.mode, file.text);
        made.files.push_back(folder + file.name);
    }
    syncFolderOf(folder);
    made.keep();
    (void)printf("The token of operator %s, also in %soperator.token, for %d days:\n%s\n\n",
                 name.c_str(), folder.c_str(), TOKEN_DAYS, token.c_str());
    (void)printf("Start the back end, and log in:\n"
                 "  remote_access_backend --config %sbackend.conf\n",
                 folder.c_str());
    if (api.empty())
        (void)printf("  remote-access --control %scontrol devices\n", folder.c_str());
    else
        (void)printf(
            "  remote-access login https://%s --ca %sca.pem --token-file %soperator.token\n",
            urlHost(names.front(), api).c_str(), folder.c_str(), folder.c_str());
}

} // namespace backend
