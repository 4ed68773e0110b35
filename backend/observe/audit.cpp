#include "backend/observe/audit.h"

#include "backend/observe/log.h"
#include "backend/sessions/session.h"

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

void auditAccountCheck(const std::string &who, const std::string &device,
                       const std::string &account, bool is_right, const std::string &reason)
{
    writeLine({{"checked", utcText(std::time(nullptr))},
               {"who", who},
               {"device", device},
               {"account", account},
               {"right", is_right},
               {"reason", reason}});
}

} // namespace backend
