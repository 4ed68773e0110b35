// Who stands behind a request, and whether he still does.
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

// Of a request that comes over the network. None: nothing that came proves an operator. A token
// counts before a certificate; one that proves nothing is not made good by a certificate.
std::optional<PRINCIPAL_T> signIn(const OPERATIONS_T &operations, const CREDENTIALS_T &credentials);

// Of a local account. Without a policy it is an operator of its own name; with one, an account
// that no operator has may do nothing.
PRINCIPAL_T accountPrincipal(const OPERATIONS_T &operations, DOOR door, const std::string &account,
                             const std::string &from);

// False once the operator is gone, or the account, certificate or token that he came with is not
// his any more. A token that has run out in the meantime is not gone: it begins nothing new, but
// what it began goes on.
bool isStillProved(const OPERATIONS_T &operations, const PRINCIPAL_T &who);

} // namespace backend
