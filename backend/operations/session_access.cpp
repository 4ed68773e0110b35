#include "backend/operations/session_access.h"

#include "backend/operations/access.h"
#include "backend/operations/operations.h"
#include "backend/operations/sign_in.h"

namespace backend {

constexpr std::size_t SWEEP_MIN = 64;

void noteSession(SESSION_OWNERS_T &owners, const SessionPtr &session, const PRINCIPAL_T &who)
{
    if (owners.owners.size() >= 2 * owners.swept_size + SWEEP_MIN) {
        std::erase_if(owners.owners,
                      [](const auto &entry) { return entry.second.session.expired(); });
        owners.swept_size = owners.owners.size();
    }
    owners.owners[session->number] = {session, who};
}

void endForbiddenSessions(const OPERATIONS_T &operations)
{
    for (const auto &[number, owner] : std::map(operations.session_owners.owners)) {
        const SessionPtr session = owner.session.lock();
        if (!session || session->state == SESSION_STATE::CLOSED) continue;
        if (!isStillProved(operations, owner.who)) {
            endForGood(session, "what its operator had proved does not hold any more");
        } else if (!decideFor(operations, owner.who, RIGHT::CONNECT, &session->device,
                              session->service.name)
                        .isAllowed()) {
            endForGood(session, "no grant allows it any more");
        }
    }
}

} // namespace backend
