#include "backend/observe/audit_line.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::ordered_json;

constexpr std::size_t TEXT_MAX = 1024;

struct EVENT_ROW_T {
    AUDIT_EVENT event;
    AUDIT_BUDGET_T budget;
};

// What only operators or the back end itself cause has no limit. Devices come and go by thousands
// at once after an outage, but not all the time.
constexpr auto EVENT_ROWS = std::to_array<EVENT_ROW_T>({
    {AUDIT_EVENT::BACK_END_STARTED, {"back_end_started", 0, 0}},
    {AUDIT_EVENT::BACK_END_STOPPED, {"back_end_stopped", 0, 0}},
    {AUDIT_EVENT::SESSION_BEGIN, {"session_begin", 0, 0}},
    {AUDIT_EVENT::SESSION_END, {"session_end", 0, 0}},
    {AUDIT_EVENT::SESSION_INTERRUPTED, {"session_interrupted", 0, 0}},
    {AUDIT_EVENT::SESSION_REFUSED, {"session_refused", 1000, 600}},
    {AUDIT_EVENT::SESSION_OPEN, {"session_open", 0, 0}},
    {AUDIT_EVENT::SESSION_CLOSE, {"session_close", 0, 0}},
    {AUDIT_EVENT::ACCOUNT_CHECK, {"account_check", 0, 0}},
    {AUDIT_EVENT::ACCOUNT_RESULT, {"account_result", 0, 0}},
    {AUDIT_EVENT::DEVICE_CONNECTED, {"device_connected", 50000, 600}},
    {AUDIT_EVENT::DEVICE_DISCONNECTED, {"device_disconnected", 50000, 600}},
    {AUDIT_EVENT::DEVICE_REPLACED, {"device_replaced", 50000, 600}},
    {AUDIT_EVENT::DEVICE_DUPLICATE, {"device_duplicate", 1000, 60}},
    {AUDIT_EVENT::DEVICE_DISCONNECT, {"device_disconnect", 0, 0}},
    {AUDIT_EVENT::HANDSHAKE_REFUSED, {"handshake_refused", 100, 30}},
    {AUDIT_EVENT::RELOAD, {"reload", 0, 0}},
    {AUDIT_EVENT::DENIED, {"denied", 1000, 600}},
    {AUDIT_EVENT::TOKEN_MAKE, {"token_make", 0, 0}},
    {AUDIT_EVENT::TOKEN_REVOKE, {"token_revoke", 0, 0}},
    {AUDIT_EVENT::HOST_KEY_FIRST, {"host_key_first", 0, 0}},
    {AUDIT_EVENT::HOST_KEY_CHANGED, {"host_key_changed", 1000, 600}},
    {AUDIT_EVENT::HOST_KEY_FORGET, {"host_key_forget", 0, 0}},
    {AUDIT_EVENT::SSH_CERTIFICATE, {"ssh_certificate", 0, 0}},
    {AUDIT_EVENT::SIGN_IN_REFUSED, {"sign_in_refused", 100, 30}},
    {AUDIT_EVENT::CONTINUED, {"continued", 0, 0}},
    {AUDIT_EVENT::TORN, {"torn", 0, 0}},
    {AUDIT_EVENT::LEFT_OUT, {"left_out", 0, 0}},
});

consteval bool rowsAreInOrder()
{
    for (std::size_t i = 0; i < EVENT_ROWS.size(); i++)
        if (EVENT_ROWS[i].event != AUDIT_EVENT(i)) return false;
    return EVENT_ROWS.size() == AUDIT_EVENT_COUNT;
}
static_assert(rowsAreInOrder());

const AUDIT_BUDGET_T &auditBudget(AUDIT_EVENT event)
{
    return EVENT_ROWS[static_cast<std::size_t>(event)].budget;
}

std::string auditTime()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    std::array<char, 40> text{};
    const std::size_t size = strftime(text.data(), text.size(), "%FT%T", &parts);
    std::array<char, 32> rest{};
    (void)snprintf(rest.data(), rest.size(), ".%03ldZ", now.tv_nsec / 1000000);
    return std::string(text.data(), size) + rest.data();
}

// As it is written: a byte that has to be escaped takes six.
static std::string cutText(const std::string &text)
{
    std::size_t written = 0;
    std::size_t size = 0;
    for (; size < text.size(); size++) {
        const char byte = text[size];
        written += byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\' ? 1 : 6;
        if (written > TEXT_MAX) break;
    }
    return text.substr(0, size);
}

static ordered_json valueOf(const AUDIT_MEMBER_T &member)
{
    if (const auto *text = std::get_if<std::string>(&member.value)) return cutText(*text);
    if (const auto *number = std::get_if<std::uint64_t>(&member.value)) return *number;
    return std::get<bool>(member.value);
}

std::string auditMembersText(AUDIT_EVENT event, const AuditMembers &members)
{
    ordered_json line = {{"time", auditTime()}, {"event", auditBudget(event).name}};
    for (const AUDIT_MEMBER_T &member : members)
        line[member.name] = valueOf(member);
    const std::string text = line.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
    return text.substr(1, text.size() - 2);
}

} // namespace backend
