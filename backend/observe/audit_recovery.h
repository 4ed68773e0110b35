// What a file of the audit tells a back end that starts: where its chain ends, whether its last
// line is torn, and which sessions stand open.
// Limits   the file is read in pieces; memory goes with the number of open sessions.
// Failure  std::runtime_error, with the path.
#pragma once

#include "backend/observe/audit.h"
#include "backend/observe/audit_chain.h"

#include <string>
#include <vector>

namespace backend {

struct AUDIT_OPEN_T {
    AUDIT_SESSION_T session;
    std::string begun; // time
};

struct AUDIT_RECOVERED_T {
    bool is_empty = true;
    AUDIT_CHAIN_T chain;
    bool lacks_newline = false;
    bool is_first_torn = false; // the process ended while it wrote the file's first line
    std::vector<AUDIT_FRAGMENT_T> fragments;
    std::vector<AUDIT_OPEN_T> open;
    std::uint64_t faults = 0; // of the chain
    std::string first_fault;
};

// fd is read from its beginning, with pread.
AUDIT_RECOVERED_T recoverAudit(int fd, const std::string &path);

} // namespace backend
