#include "platform/nopoll/upgrade.h"

#include <strings.h>

namespace ws {
namespace {

constexpr std::string_view STATUS_SWITCHING = "HTTP/1.1 101";
constexpr std::string_view BLANKS = " \t";

struct ANSWER_T {
    bool upgrade;
    bool connection;
    int accepts;
    bool accept_right;
    bool extension;
    bool foreign_protocol;
};

bool sameText(std::string_view one, std::string_view other)
{
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// Cuts the part before the separator off the text; the whole text when there is none.
std::string_view takeUntil(std::string_view &text, std::string_view separator)
{
    const std::size_t end = text.find(separator);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return part;
}

bool listContains(std::string_view list, std::string_view token)
{
    while (!list.empty())
        if (sameText(trimmed(takeUntil(list, ",")), token)) return true;
    return false;
}

void noteHeader(std::string_view name, std::string_view value, std::string_view accept,
                std::string_view offered_protocols, ANSWER_T &answer)
{
    if (sameText(name, "Upgrade")) {
        answer.upgrade |= listContains(value, "websocket");
    } else if (sameText(name, "Connection")) {
        answer.connection |= listContains(value, "upgrade");
    } else if (sameText(name, "Sec-WebSocket-Accept")) {
        ++answer.accepts;
        answer.accept_right = value == accept;
    } else if (sameText(name, "Sec-WebSocket-Extensions")) {
        answer.extension |= !value.empty();
    } else if (sameText(name, "Sec-WebSocket-Protocol")) {
        answer.foreign_protocol |= !listContains(offered_protocols, value);
    }
}

} // namespace

std::size_t formatUpgradeRequest(const UPGRADE_REQUEST_T &request, std::span<char> dst)
{
    const bool offers = request.protocols[0] != '\0';
    const int length = std::snprintf(dst.data(), dst.size(),
                                     "GET %s HTTP/1.1\r\n"
                                     "Host: %s\r\n"
                                     "Upgrade: websocket\r\n"
                                     "Connection: Upgrade\r\n"
                                     "Sec-WebSocket-Key: %s\r\n"
                                     "Sec-WebSocket-Version: 13\r\n"
                                     "Origin: %s\r\n"
                                     "%s%s%s\r\n",
                                     request.path, request.host, request.key, request.origin,
                                     offers ? "Sec-WebSocket-Protocol: " : "", request.protocols,
                                     offers ? "\r\n" : "");
    if (length <= 0 || static_cast<std::size_t>(length) >= dst.size()) return 0;
    return static_cast<std::size_t>(length);
}

bool checkUpgradeAnswer(std::string_view text, std::string_view accept,
                        std::string_view offered_protocols, FAILURE_T &failure)
{
    char shown[120];
    const std::string_view status = takeUntil(text, "\r\n");
    const std::string_view reason = status.substr(std::min(status.size(), STATUS_SWITCHING.size()));
    if (!status.starts_with(STATUS_SWITCHING) || !(reason.empty() || reason[0] == ' '))
        return fail(failure, "the server refused the upgrade: \"%s\"", printable(status, shown));

    ANSWER_T answer{};
    while (!text.empty()) {
        std::string_view value = takeUntil(text, "\r\n");
        const std::string_view line = value;
        const std::string_view name = takeUntil(value, ":");
        const bool malformed = name.empty() || name.size() == line.size() || name != trimmed(name);
        if (malformed)
            return fail(failure, "malformed header in the server's answer: \"%s\"",
                        printable(line, shown));
        noteHeader(name, trimmed(value), accept, offered_protocols, answer);
    }
    if (!answer.upgrade) return fail(failure, "no \"Upgrade: websocket\" in the server's answer");
    if (!answer.connection)
        return fail(failure, "no \"Connection: Upgrade\" in the server's answer");
    if (answer.accepts != 1 || !answer.accept_right)
        return fail(failure, "wrong or missing Sec-WebSocket-Accept in the server's answer");
    if (answer.extension)
        return fail(failure, "the server chose an extension that was not offered");
    if (answer.foreign_protocol)
        return fail(failure, "the server chose a sub-protocol that was not offered");
    return true;
}

} // namespace ws
