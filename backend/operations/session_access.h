// Who began which session, so that a session ends once its operator may not have it any more.
// Ownership  the record belongs to the operations; it does not keep sessions.
// Threads    the thread of the io_context.
#pragma once

#include "backend/policy/policy.h"
#include "backend/sessions/session.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace backend {

struct OPERATIONS_T;

struct SESSION_OWNER_T {
    std::weak_ptr<SESSION_T> session;
    PRINCIPAL_T who;
};

struct SESSION_OWNERS_T {
    std::map<std::string, SESSION_OWNER_T> owners; // by the session's number
    std::size_t swept_size = 0;                    // how many were left when it was last swept
};

void noteSession(SESSION_OWNERS_T &owners, const SessionPtr &session, const PRINCIPAL_T &who);

// Ends each session whose operator, or what he proved himself with, is gone, and which no grant
// allows him any more. After a reload, and when tokens were revoked.
void endForbiddenSessions(const OPERATIONS_T &operations);

} // namespace backend
