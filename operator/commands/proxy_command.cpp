#include "operator/commands/proxy_command.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <stdexcept>
#include <unistd.h>

namespace {

std::string shellText(const std::string &text)
{
    std::string quoted = "'";
    for (const char byte : text)
        quoted += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
    return quoted + "'";
}

// ssh expands % in the command.
std::string expandedOnce(const std::string &text)
{
    std::string doubled;
    for (const char byte : text)
        doubled.append(byte == '%' ? 2 : 1, byte);
    return doubled;
}

} // namespace

bool isPlain(const std::string &name)
{
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '.';
    });
}

std::string toolPath()
{
    std::array<char, PATH_MAX> path{};
    const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
    if (size <= 0 || static_cast<std::size_t>(size) == path.size())
        throw std::runtime_error("the path of this program cannot be told: /proc is missing");
    return {path.data(), static_cast<std::size_t>(size)};
}

std::string serverOption(const OPERATOR_OPTIONS_T &options)
{
    const bool has_server = !options.choice.server.empty();
    const std::string &value = has_server ? options.choice.server : options.choice.control;
    if (value.empty()) return "";
    const bool needs_quotes = !std::all_of(value.begin(), value.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::string_view("-_./:").find(c) != std::string_view::npos;
    });
    return (has_server ? " --server " : " --control ") + (needs_quotes ? shellText(value) : value);
}

std::string proxyCommand(const OPERATOR_OPTIONS_T &options, const nlohmann::json &service)
{
    const std::string target = service.value("device", "") + "/" + service.value("service", "");
    return expandedOnce(shellText(toolPath()) + serverOption(options) + " connect " +
                        shellText(target));
}
