#include "backend/audit.h"

#include "backend/log.h"
#include "backend/tunnel.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unistd.h>

namespace backend {

static std::atomic<int> g_audit_fd = STDOUT_FILENO; // lives as long as the process

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
    const int old = g_audit_fd.exchange(fd);
    if (old != STDOUT_FILENO) close(old);
}

static void writeLine(const nlohmann::ordered_json &line)
{
    const std::string text =
        line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    if (write(g_audit_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        logError("audit line lost: %s", text.c_str());
}

void auditSession(const SESSION_T &session)
{
    writeLine({{"ended", utcText(std::time(nullptr))},
               {"asked", utcText(session.asked_at)},
               {"who", session.origin.who},
               {"device", session.device},
               {"service", session.service.name},
               {"session", session.token},
               {"bytes_up", session.bytes_up},
               {"bytes_down", session.bytes_down},
               {"whole", session.is_whole},
               {"reason", session.end_reason}});
}

void auditRefusal(const std::string &who, const std::string &device, const std::string &service,
                  const std::string &reason)
{
    const std::string now = utcText(std::time(nullptr));
    writeLine({{"ended", now},
               {"asked", now},
               {"who", who},
               {"device", device},
               {"service", service},
               {"session", ""},
               {"bytes_up", 0},
               {"bytes_down", 0},
               {"whole", false},
               {"reason", reason}});
}

} // namespace backend
