#include "bench/load/sessions.h"

#include <sys/socket.h>

namespace {

constexpr std::size_t CARRIED_MAX = 64;

} // namespace

void carry(const UniqueFd &from, const UniqueFd &to, std::size_t size)
{
    char bytes[CARRIED_MAX] = {};
    require(::send(from.get(), bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "send");
    require(::recv(to.get(), bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size), "receive");
}

SESSION_T openSession(const WAY_T &way)
{
    SESSION_T session;
    session.client = connectTo(way.entry);
    const char first = 0;
    require(::send(session.client.get(), &first, 1, MSG_NOSIGNAL) == 1, "send");
    session.service = acceptFrom(way.listener);
    char echo = 0;
    require(::recv(session.service.get(), &echo, 1, 0) == 1, "the session's first byte");
    carry(session.service, session.client, 1);
    return session;
}

std::vector<SESSION_T> openSessions(const WAY_T &way, std::size_t count)
{
    std::vector<SESSION_T> sessions;
    while (sessions.size() < count)
        sessions.push_back(openSession(way));
    return sessions;
}

void closeSession(SESSION_T &session)
{
    session.service.reset();
    char byte = 0;
    setReadTimeout(session.client.get(), PROGRESS_MS);
    require(::recv(session.client.get(), &byte, 1, 0) == 0, "the session's end");
    session.client.reset();
}
