#include "backend/observe/audit.h"

#include "backend/observe/audit_line.h"
#include "backend/observe/audit_recovery.h"
#include "backend/observe/audit_writer.h"
#include "backend/observe/log.h"
#include "backend/observe/metrics.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace backend {

using Clock = std::chrono::steady_clock;

constexpr auto LEFT_OUT_PERIOD = std::chrono::seconds(10); // between two lines of one event

struct AUDIT_T {
    AUDIT_OPTIONS_T options;
    AuditWriterPtr writer;
    dev_t device = 0; // of the file, with inode
    ino_t inode = 0;
    std::unordered_map<std::string, AUDIT_OPEN_T> open; // the sessions, by id
};

static std::unique_ptr<AUDIT_T> g_audit; // null before startAudit and after stopAudit

// ---- what is counted instead

struct BUDGET_STATE_T {
    double tokens = 0;
    std::optional<Clock::time_point> filled_at;
    std::uint64_t left_out = 0;
    Clock::time_point told_at;
};

static constinit std::mutex g_budget_lock; // the writer's thread tells the counts
static constinit std::array<BUDGET_STATE_T, AUDIT_EVENT_COUNT> g_budgets{};

static bool budgetAllows(AUDIT_EVENT event)
{
    const AUDIT_BUDGET_T &budget = auditBudget(event);
    if (budget.burst == 0) return true;
    const std::lock_guard guard(g_budget_lock);
    BUDGET_STATE_T &state = g_budgets[static_cast<std::size_t>(event)];
    const auto now = Clock::now();
    const double minutes =
        state.filled_at
            ? std::chrono::duration<double, std::ratio<60>>(now - *state.filled_at).count()
            : 1e9;
    state.tokens = std::min<double>(budget.burst, state.tokens + minutes * budget.per_minute);
    state.filled_at = now;
    if (state.tokens < 1) return false;
    state.tokens -= 1;
    return true;
}

static void countLeftOut(AUDIT_EVENT event)
{
    addToMetric(METRIC::AUDIT_LINES_LEFT_OUT);
    const std::lock_guard guard(g_budget_lock);
    g_budgets[static_cast<std::size_t>(event)].left_out++;
}

static void tellLeftOut(AUDIT_WRITER_T &writer, std::chrono::seconds period)
{
    const auto now = Clock::now();
    const std::lock_guard guard(g_budget_lock);
    for (std::size_t i = 0; i < g_budgets.size(); i++) {
        BUDGET_STATE_T &state = g_budgets[i];
        if (state.left_out == 0 || now - state.told_at < period) continue;
        std::string members =
            auditMembersText(AUDIT_EVENT::LEFT_OUT,
                             {{"of", auditBudget(AUDIT_EVENT(i)).name}, {"count", state.left_out}});
        if (!offerAuditLine(writer, AUDIT_ROOM::FULL, std::move(members), nullptr)) return;
        state.left_out = 0;
        state.told_at = now;
    }
}

// ---- lines

static void postRefused(AuditDone done)
{
    if (done && g_audit->options.post)
        g_audit->options.post([done = std::move(done)] { done(false); });
}

bool auditRecord(AUDIT_EVENT event, const AuditMembers &members, AuditDone done)
{
    if (!g_audit) {
        if (done) done(true);
        return true;
    }
    const AuditDone refused = done;
    if (budgetAllows(event) && offerAuditLine(*g_audit->writer, AUDIT_ROOM::FULL,
                                              auditMembersText(event, members), std::move(done)))
        return true;
    countLeftOut(event);
    postRefused(refused);
    return false;
}

bool auditRecord(AUDIT_EVENT event, const AuditMembers &members)
{
    return auditRecord(event, members, nullptr);
}

static AuditMembers sessionMembers(const AUDIT_SESSION_T &session)
{
    AuditMembers members;
    if (!session.id.empty()) members.emplace_back("session", session.id);
    members.emplace_back("product", session.product);
    members.emplace_back("device", session.device);
    members.emplace_back("who", session.who);
    members.emplace_back("from", session.from);
    members.emplace_back("service", session.service);
    if (session.is_shared) members.emplace_back("shared", true);
    if (!session.kept.empty()) members.emplace_back("kept", session.kept);
    if (session.is_resumed) members.emplace_back("resumed", true);
    return members;
}

static AuditMembers openMembers(const AUDIT_OPEN_T &open)
{
    AuditMembers members = sessionMembers(open.session);
    members.emplace_back("begun", open.begun);
    return members;
}

bool auditSessionBegin(const AUDIT_SESSION_T &session, AuditDone done)
{
    if (!g_audit) {
        if (done) done(true);
        return true;
    }
    const AuditDone refused = done;
    AUDIT_OPEN_T &open = g_audit->open[session.id];
    open = {session, auditTime()};
    std::string members = auditMembersText(AUDIT_EVENT::SESSION_BEGIN, sessionMembers(session));
    if (offerAuditLine(*g_audit->writer, AUDIT_ROOM::HALF, std::move(members), std::move(done))) {
        addToMetric(METRIC::SESSIONS_BEGUN);
        return true;
    }
    g_audit->open.erase(session.id);
    postRefused(refused);
    return false;
}

void auditSessionEnd(const std::string &id, const AUDIT_END_T &end)
{
    if (!g_audit) return;
    const auto open = g_audit->open.extract(id);
    if (open.empty()) return;
    AuditMembers members = openMembers(open.mapped());
    members.emplace_back("bytes_up", end.bytes_up);
    members.emplace_back("bytes_down", end.bytes_down);
    members.emplace_back("whole", end.is_whole);
    members.emplace_back("reason", end.reason);
    if (end.is_final) members.emplace_back("final", true);
    if (!end.device_session.empty()) members.emplace_back("device_session", end.device_session);
    (void)offerAuditLine(*g_audit->writer, AUDIT_ROOM::ALWAYS,
                         auditMembersText(AUDIT_EVENT::SESSION_END, members), nullptr);
}

void auditSessionRefused(const AUDIT_SESSION_T &session, const std::string &reason)
{
    addToMetric(METRIC::SESSIONS_REFUSED);
    AuditMembers members = sessionMembers(session);
    members.emplace_back("reason", reason);
    auditRecord(AUDIT_EVENT::SESSION_REFUSED, members);
}

bool auditAccepts()
{
    return !g_audit || hasAuditRoom(*g_audit->writer);
}

// ---- files

static std::runtime_error faultOf(const std::string &path)
{
    return std::runtime_error(path + ": " + strerror(errno));
}

static AuditFd openFile(const std::string &path)
{
    AuditFd fd(
        open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640));
    struct stat status {};
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0) throw faultOf(path);
    // Two writers would tear the chain apart.
    if (S_ISREG(status.st_mode) && flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
        throw errno == EWOULDBLOCK ? std::runtime_error(path + ": another back end writes it")
                                   : faultOf(path);
    return fd;
}

static struct stat statusOf(int fd)
{
    struct stat status {};
    (void)fstat(fd, &status);
    return status;
}

static void noteFile(AUDIT_T &audit, int fd)
{
    const struct stat status = statusOf(fd);
    audit.device = status.st_dev;
    audit.inode = status.st_ino;
}

// A back end that starts after the rotation and before anyone has told the old one finds its last
// lines under the name that rotation gives.
static AUDIT_RECOVERED_T recoverRotated(const std::string &path)
{
    const std::string rotated = path + ".1";
    const AuditFd fd(open(rotated.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0 || !S_ISREG(statusOf(fd.get()).st_mode)) return {};
    try {
        AUDIT_RECOVERED_T found = recoverAudit(fd.get(), rotated);
        found.lacks_newline = false; // that file stays as it is
        return found;
    } catch (const std::runtime_error &fault) {
        logWarning("%s; the audit begins anew", fault.what());
        return {};
    }
}

static void offerFirst(AUDIT_WRITER_T &writer, AUDIT_EVENT event, const AuditMembers &members)
{
    (void)offerAuditLine(writer, AUDIT_ROOM::ALWAYS, auditMembersText(event, members), nullptr);
}

static void recordStart(AUDIT_WRITER_T &writer, const AUDIT_RECOVERED_T &found,
                        const std::string &version, bool is_rotated)
{
    if (is_rotated)
        offerFirst(writer, AUDIT_EVENT::CONTINUED, {{"open", std::uint64_t{found.open.size()}}});
    for (const AUDIT_FRAGMENT_T &fragment : found.fragments)
        offerFirst(writer, AUDIT_EVENT::TORN,
                   {{"bytes", fragment.size}, {"sha256", fragment.hash}});
    offerFirst(writer, AUDIT_EVENT::BACK_END_STARTED, {{"version", version}});
    for (const AUDIT_OPEN_T &open : found.open) {
        AuditMembers members = openMembers(open);
        members.emplace_back("reason", "the back end ended without its record");
        offerFirst(writer, AUDIT_EVENT::SESSION_INTERRUPTED, members);
    }
}

static void logStart(const AUDIT_RECOVERED_T &found, const std::string &path)
{
    if (found.faults > 0)
        logError("%s: the chain of the audit is broken, %llu faults, the first: %s", path.c_str(),
                 static_cast<unsigned long long>(found.faults), found.first_fault.c_str());
    if (!found.fragments.empty()) logWarning("%s: the last line is torn", path.c_str());
    if (!found.open.empty())
        logWarning("%s: %zu sessions stood open and are recorded as interrupted", path.c_str(),
                   found.open.size());
    logInfo("the audit goes on in %s after line %llu, hash %s", path.c_str(),
            static_cast<unsigned long long>(found.chain.seq), found.chain.hash.c_str());
}

// Nothing else stands in the file, and its chain is that of the file before.
static void dropTornBegin(int fd, const std::string &path)
{
    if (ftruncate(fd, 0) != 0) throw std::runtime_error(path + ": " + strerror(errno));
    logWarning("%s: its only line is torn and is dropped", path.c_str());
}

void startAudit(AUDIT_OPTIONS_T options)
{
    AUDIT_WRITER_OPTIONS_T chosen;
    AUDIT_RECOVERED_T found;
    bool is_rotated = false;
    if (options.path == "-") {
        chosen.fd = AuditFd(STDOUT_FILENO);
    } else {
        chosen.fd = openFile(options.path);
        if (S_ISREG(statusOf(chosen.fd.get()).st_mode)) {
            found = recoverAudit(chosen.fd.get(), options.path);
            if (found.is_first_torn) dropTornBegin(chosen.fd.get(), options.path);
            if (found.is_empty || found.is_first_torn) found = recoverRotated(options.path);
            is_rotated = statusOf(chosen.fd.get()).st_size == 0 && !found.is_empty;
            logStart(found, options.path);
        }
    }
    chosen.chain = found.chain;
    chosen.lacks_newline = found.lacks_newline;
    chosen.post = options.post;
    chosen.tick = [](AUDIT_WRITER_T &writer) { tellLeftOut(writer, LEFT_OUT_PERIOD); };
    {
        const std::lock_guard guard(g_budget_lock);
        g_budgets = {};
    }
    auto audit = std::make_unique<AUDIT_T>();
    noteFile(*audit, chosen.fd.get());
    audit->writer = startAuditWriter(std::move(chosen));
    recordStart(*audit->writer, found, options.version, is_rotated);
    audit->options = std::move(options);
    g_audit = std::move(audit);
}

void reopenAudit()
{
    if (!g_audit || g_audit->options.path == "-") return;
    const std::string &path = g_audit->options.path;
    struct stat named {};
    const bool is_there = stat(path.c_str(), &named) == 0;
    if (is_there && named.st_dev == g_audit->device && named.st_ino == g_audit->inode) return;
    if (is_there && S_ISREG(named.st_mode) && named.st_size > 0)
        throw std::runtime_error(path + ": has lines of others, the audit stays in its old file");
    AuditFd fd = openFile(path);
    noteFile(*g_audit, fd.get());
    std::list<std::string> first_lines{
        auditMembersText(AUDIT_EVENT::CONTINUED, {{"open", std::uint64_t{g_audit->open.size()}}})};
    for (const auto &[id, open] : g_audit->open)
        first_lines.push_back(auditMembersText(AUDIT_EVENT::SESSION_OPEN, openMembers(open)));
    switchAuditFile(*g_audit->writer, std::move(fd), std::move(first_lines));
}

void muteAudit()
{
    if (!g_audit) return;
    g_audit->options.post = nullptr;
    muteAuditWriter(*g_audit->writer);
}

bool stopAudit(std::chrono::milliseconds bound)
{
    if (!g_audit) return true;
    const std::unique_ptr<AUDIT_T> audit = std::exchange(g_audit, nullptr);
    tellLeftOut(*audit->writer, std::chrono::seconds(0));
    offerFirst(*audit->writer, AUDIT_EVENT::BACK_END_STOPPED, {});
    return stopAuditWriter(*audit->writer, bound);
}

} // namespace backend
