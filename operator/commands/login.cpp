// The commands that keep logins: login, logout.
#include "operator/commands/commands.h"
#include "operator/commands/table.h"
#include "operator/settings/saved_servers.h"
#include "operator/settings/url.h"
#include "operator/terminal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

using nlohmann::json;

namespace {

constexpr std::size_t TOKEN_MAX = 1024;

std::string absolutePath(const std::string &path)
{
    if (path.empty()) return "";
    const HeapText resolved{::realpath(path.c_str(), nullptr)};
    if (!resolved) throw std::runtime_error(path + ": " + std::strerror(errno));
    return resolved.get();
}

std::string tokenFrom(const std::string &path)
{
    std::string token;
    token.reserve(PASSWORD_ROOM);
    if (path == "-") {
        std::getline(std::cin, token);
        return token;
    }
    std::ifstream file(path);
    if (!file) throw std::runtime_error(path + ": " + std::strerror(errno));
    std::getline(file, token);
    return token;
}

std::string readToken(const OPERATOR_OPTIONS_T &options, const std::string &url)
{
    std::string token = options.token_file.empty()
                            ? readPassword("Token for " + url + ": ", "--token-file")
                            : tokenFrom(options.token_file);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' '))
        token.pop_back();
    // It goes into a header.
    const bool is_plain =
        std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c < '\x7f'; });
    if (token.empty() || !is_plain || token.size() > TOKEN_MAX) {
        wipe(token);
        throw std::runtime_error("that is no token: a token is one word, as \"rat_...\"");
    }
    return token;
}

} // namespace

int logIn(const OPERATOR_OPTIONS_T &options)
{
    SERVER_T server;
    server.url = serverUrl(options.url);
    server.ca = absolutePath(options.ca);
    server.certificate = absolutePath(options.certificate);
    server.key = absolutePath(options.key);
    if (server.certificate.empty()) server.token = readToken(options, server.url);
    const json answer = ask(backEndAt(server), {{"do", "whoami"}}, waitOf(options, ANSWER_TIME));
    saveServer(server);
    wipe(server.token);
    std::printf("logged in to %s as %s\n", server.url.c_str(),
                textOrDash(answer, "operator").c_str());
    if (answer.contains("expires"))
        std::printf("the login ends at %s UTC\n", timeOf(answer, "expires").c_str());
    return OPERATOR_DONE;
}

int logOut(const OPERATOR_OPTIONS_T &options)
{
    const std::string given = options.url.empty() ? options.choice.server : options.url;
    const std::string url = given.empty() ? loadServers().usual : serverUrl(given);
    if (url.empty()) throw std::runtime_error("there is no login");
    if (!forgetServer(url)) throw std::runtime_error("there is no login for " + url);
    std::printf("logged out of %s; the token itself is good until it ends or is revoked\n",
                url.c_str());
    return OPERATOR_DONE;
}
