// Who stands behind a request that comes over the network.
// Threads  the thread of the io_context.
#pragma once

#include "backend/policy/policy.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

struct OPERATIONS_T;

struct CREDENTIALS_T {
    std::string_view token;                     // empty: none came
    std::vector<std::string> certificate_names; // of a certificate that the CA has signed
    std::string from;                           // address and port, for the audit
};

// None: nothing that came proves an operator. A token counts before a certificate; one that proves
// nothing is not made good by a certificate.
std::optional<PRINCIPAL_T> signIn(const OPERATIONS_T &operations, const CREDENTIALS_T &credentials);

} // namespace backend
