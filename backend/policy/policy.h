// Who may do what. Whoever may write to the control socket is an operator and may do everything:
// its file's permissions protect it. Who comes through a local port that the back end forwards may
// connect, to what the port leads to.
// Threads  no state.
#pragma once

#include "backend/device_key.h"

#include <string>
#include <string_view>

namespace backend {

enum class RIGHT { LIST, CONNECT, VERIFY, CLOSE, MANAGE };

enum class DOOR { CONTROL_SOCKET, FORWARDED_PORT };

struct PRINCIPAL_T {
    DOOR door = DOOR::CONTROL_SOCKET;
    std::string name; // the account, for the audit
    std::string from; // process, or address and port
};

struct DECISION_T {
    bool is_allowed = false;
    std::string reason; // of a denial
};

// device, service: what the right is wanted for; null and empty where it is for none.
DECISION_T decide(const PRINCIPAL_T &who, RIGHT right, const DEVICE_KEY_T *device,
                  std::string_view service);

} // namespace backend
