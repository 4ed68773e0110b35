#include "backend/observe/audit.h"

#include "backend/observe/log.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace backend {

// The file lives as long as the process.
static int g_fd = STDOUT_FILENO;
static bool g_line_torn = false; // the file took only a part of the last line

static std::string utcText(std::time_t time)
{
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 40> text{};
    const std::size_t size = strftime(text.data(), text.size(), "%FT%TZ", &parts);
    return {text.data(), size};
}

void openAudit(const std::string &path)
{
    int fd = STDOUT_FILENO;
    if (path != "-") {
        fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
        if (fd < 0) throw std::runtime_error(path + ": " + strerror(errno));
    }
    const int old = std::exchange(g_fd, fd);
    if (old != STDOUT_FILENO) close(old);
    struct stat status {};
    if (fstat(fd, &status) == 0 && status.st_size == 0) g_line_torn = false; // a fresh file
}

static void writeLine(const nlohmann::ordered_json &line)
{
    const std::string text =
        (g_line_torn ? "\n" : "") +
        line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(g_fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        written += static_cast<std::size_t>(count);
    }
    if (written > 0) g_line_torn = text[written - 1] != '\n';
    if (written < text.size()) logError("audit line lost: %s", text.c_str());
}

// Simple bodies of the interface that is to come.
static AUDIT_OPTIONS_T g_options;
static bool g_is_started = false;

constexpr const char *EVENT_NAMES[] = {"back_end_started",
                                       "back_end_stopped",
                                       "session_begin",
                                       "session_end",
                                       "session_interrupted",
                                       "session_refused",
                                       "session_open",
                                       "session_close",
                                       "account_check",
                                       "account_result",
                                       "device_connected",
                                       "device_disconnected",
                                       "device_replaced",
                                       "device_duplicate",
                                       "device_disconnect",
                                       "handshake_refused",
                                       "reload",
                                       "denied",
                                       "continued",
                                       "torn",
                                       "left_out"};

void startAudit(AUDIT_OPTIONS_T options)
{
    openAudit(options.path);
    g_options = std::move(options);
    g_is_started = true;
}

void reopenAudit()
{
    openAudit(g_options.path);
}

bool stopAudit(std::chrono::milliseconds /*bound*/)
{
    g_is_started = false;
    return true;
}

bool auditAccepts()
{
    return true;
}

bool auditRecord(AUDIT_EVENT event, AuditMembers members)
{
    if (!g_is_started) return true;
    nlohmann::ordered_json line = {{"time", utcText(std::time(nullptr))},
                                   {"event", EVENT_NAMES[static_cast<std::size_t>(event)]}};
    for (const AUDIT_MEMBER_T &member : members)
        std::visit([&](const auto &value) { line[member.name] = value; }, member.value);
    writeLine(line);
    return true;
}

bool auditRecord(AUDIT_EVENT event, AuditMembers members, AuditDone done)
{
    auditRecord(event, std::move(members));
    if (g_is_started)
        g_options.post([done] { done(true); });
    else
        done(true);
    return true;
}

static AuditMembers sessionMembers(const AUDIT_SESSION_T &session)
{
    return {{"session", session.id}, {"product", session.product}, {"device", session.device},
            {"who", session.who},    {"from", session.from},       {"service", session.service}};
}

bool auditSessionBegin(const AUDIT_SESSION_T &session, AuditDone done)
{
    return auditRecord(AUDIT_EVENT::SESSION_BEGIN, sessionMembers(session), std::move(done));
}

void auditSessionEnd(const std::string &id, const AUDIT_END_T &end)
{
    auditRecord(AUDIT_EVENT::SESSION_END, {{"session", id},
                                           {"bytes_up", end.bytes_up},
                                           {"bytes_down", end.bytes_down},
                                           {"whole", end.is_whole},
                                           {"reason", end.reason},
                                           {"device_session", end.device_session}});
}

void auditSessionRefused(const AUDIT_SESSION_T &session, const std::string &reason)
{
    AuditMembers members = sessionMembers(session);
    members.emplace_back("reason", reason);
    auditRecord(AUDIT_EVENT::SESSION_REFUSED, std::move(members));
}

} // namespace backend
