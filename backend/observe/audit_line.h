// The members of an audit line as text, and what each event may cost.
// Threads  no shared state.
// Failure  none; bytes that are no UTF-8 are replaced.
#pragma once

#include "backend/observe/audit.h"

#include <string>

namespace backend {

// Some events can be caused from outside at will. They have a budget: `burst` lines at once, and
// `per_minute` for good. 0: no limit.
struct AUDIT_BUDGET_T {
    const char *name;
    std::uint32_t burst;
    std::uint32_t per_minute;
};

constexpr std::size_t AUDIT_EVENT_COUNT = static_cast<std::size_t>(AUDIT_EVENT::LEFT_OUT) + 1;

const AUDIT_BUDGET_T &auditBudget(AUDIT_EVENT event);

// "2026-11-23T01:02:03.456Z", now.
std::string auditTime();

// "\"time\":...,\"event\":...,MEMBERS".
std::string auditMembersText(AUDIT_EVENT event, const AuditMembers &members);

} // namespace backend
