#include "backend/sessions/session_table.h"

#include "backend/limits.h"
#include "backend/observe/audit.h"
#include "backend/observe/uuid.h"

#include <algorithm>
#include <memory>

namespace backend {

constexpr char AUDIT_UNWRITABLE[] = "the audit cannot be written";

static SessionPtr largestBacklog(const SESSION_TABLE_T &table)
{
    SessionPtr largest;
    for (const auto &[number, weak] : table.sessions) {
        const SessionPtr session = weak.lock();
        if (session && session->state != SESSION_STATE::CLOSED &&
            (!largest || session->counted > largest->counted))
            largest = session;
    }
    return largest;
}

static std::string mebibytes(std::size_t bytes)
{
    return std::to_string(bytes >> 20) + " MiB";
}

void noteBacklog(SESSION_TABLE_T &table, SESSION_T &session)
{
    const std::size_t now = session.filling.size() + session.writing.size() - session.written;
    table.backlog += now - session.counted;
    session.counted = now;
    if (now > table.limits.session_buffer) {
        return endSession(session.shared_from_this(),
                          "the client does not read: more than " +
                              mebibytes(table.limits.session_buffer) + " waited for it",
                          false);
    }
    if (table.backlog <= table.limits.all_buffers) return;
    const SessionPtr worst = largestBacklog(table);
    if (worst) {
        endSession(worst,
                   "the client does not read: " + mebibytes(worst->counted) +
                       " waited for it, and too much for all",
                   false);
    }
}

SessionPtr findSession(const SESSION_TABLE_T &table, const std::string &number)
{
    const auto found = table.sessions.find(number);
    return found == table.sessions.end() ? nullptr : found->second.lock();
}

SessionPtr startSession(const SessionTablePtr &table, DEVICE_CHANNEL_T &channel, CLIENT_T client,
                        const SERVICE_T &service)
{
    auto session = std::make_shared<SESSION_T>(table, std::move(client), channel, service);
    session->number = newUuid();
    table->sessions.emplace(session->number, session);
    const AUDIT_SESSION_T about{session->number,
                                session->device.product_key,
                                session->device.device_name,
                                session->origin.who,
                                session->origin.from,
                                service.name,
                                session->origin.is_shared,
                                session->origin.kept ? session->origin.kept->mark : "",
                                session->origin.kept && session->origin.kept->isResumed()};
    // The channel must not go before the session knows that it is closed.
    const auto recorded = [session, held = channel.shared_from_this()](bool is_recorded) {
        if (!is_recorded) return session->cut(AUDIT_UNWRITABLE);
        openSession(session);
    };
    if (!auditSessionBegin(about, recorded)) auditSessionRefused(about, AUDIT_UNWRITABLE);
    return session;
}

} // namespace backend
