#include "backend/observe/audit_recovery.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unistd.h>
#include <unordered_map>

namespace backend {

using nlohmann::json;

constexpr std::size_t PIECE_SIZE = std::size_t{256} * 1024;

using OpenLines = std::unordered_map<std::string, std::string>; // by session

static void noteSession(OpenLines &open, std::string_view line)
{
    const std::string_view event = auditEventOf(line);
    if (!event.starts_with("session_")) return;
    if (event == "session_begin" || event == "session_open")
        open.insert_or_assign(std::string(auditTextOf(line, "session")), std::string(line));
    else if (event == "session_end" || event == "session_interrupted")
        open.erase(std::string(auditTextOf(line, "session")));
}

static AUDIT_OPEN_T openOf(const std::string &line)
{
    const json parsed = json::parse(line);
    const auto text = [&parsed](const char *name) { return parsed.value(name, std::string()); };
    const std::string time = text("time");
    return {{text("session"), text("product"), text("device"), text("who"), text("from"),
             text("service"), parsed.value("shared", false), text("kept"),
             parsed.value("resumed", false)},
            parsed.value("begun", time)};
}

static void readAll(int fd, const std::string &path, AuditChecker &checker)
{
    std::string piece(PIECE_SIZE, '\0');
    for (off_t at = 0;;) {
        const ssize_t count = pread(fd, piece.data(), piece.size(), at);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::runtime_error(path + ": " + strerror(errno));
        if (count == 0) return;
        checker.feed({piece.data(), static_cast<std::size_t>(count)});
        at += count;
    }
}

// The first bytes of a line, as far as they are there.
static bool beginsLikeAudit(int fd)
{
    constexpr std::string_view BEGIN = "{\"time\":\"";
    std::array<char, BEGIN.size()> bytes{};
    const ssize_t count = pread(fd, bytes.data(), bytes.size(), 0);
    return count > 0 && BEGIN.starts_with({bytes.data(), static_cast<std::size_t>(count)});
}

AUDIT_RECOVERED_T recoverAudit(int fd, const std::string &path)
{
    AUDIT_RECOVERED_T found;
    OpenLines open;
    AuditChecker checker;
    checker.on_line = [&](std::string_view line) { noteSession(open, line); };
    checker.on_finding = [&](const AUDIT_FINDING_T &finding) {
        if (finding.fault == AUDIT_FAULT::TORN) return;
        if (found.faults++ == 0)
            found.first_fault = "line " + std::to_string(finding.line) + " " + finding.text;
    };
    readAll(fd, path, checker);
    found.lacks_newline = checker.nextFile();
    found.fragments = checker.fragments();
    found.is_empty = checker.lines() == 0 && found.fragments.empty();
    found.is_first_torn = checker.lines() == 0 && found.fragments.size() == 1 &&
                          found.lacks_newline && beginsLikeAudit(fd);
    if (checker.lines() == 0 && !found.is_empty && !found.is_first_torn)
        throw std::runtime_error(path + ": is no audit, move it away");
    found.chain = checker.end();
    for (const auto &[id, line] : open)
        found.open.push_back(openOf(line));
    return found;
}

} // namespace backend
