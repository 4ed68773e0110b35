// Identifiers that are unique for good: UUID version 7 of RFC 9562, 36 characters in lower case.
// They begin with the time in milliseconds, so they sort by age; within a process each is greater
// than the one before, also when the clock is set back.
// Threads  safe from every thread.
// Failure  std::runtime_error when the system has no random bytes.
#pragma once

#include <string>

namespace backend {

std::string newUuid();

} // namespace backend
