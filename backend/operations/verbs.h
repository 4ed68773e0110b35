// The operations themselves: what runs once a request is parsed, allowed and recorded.
// Failure  OperationFault, or an answer that says what failed.
#pragma once

#include "backend/observe/audit.h"
#include "backend/operations/fault.h"
#include "backend/operations/operations.h"

#include <string>

namespace backend {

// The last answer of a call that has failed.
void refuse(const CALL_T &call, FAULT fault, const std::string &error);

// Who asked for what, for the audit.
AuditMembers recordOf(const CALL_T &call);

// device_operations.cpp
void listDevices(OPERATIONS_T &operations, const CallPtr &call);
void showDevice(OPERATIONS_T &operations, const CallPtr &call);
void listServices(OPERATIONS_T &operations, const CallPtr &call);
void verifyAccount(OPERATIONS_T &operations, const CallPtr &call);
void disconnectDevice(OPERATIONS_T &operations, const CallPtr &call);
void switchAccess(OPERATIONS_T &operations, const CallPtr &call);

// session_operations.cpp
void listSessions(OPERATIONS_T &operations, const CallPtr &call);
void connectClient(OPERATIONS_T &operations, const CallPtr &call);
void closeSession(OPERATIONS_T &operations, const CallPtr &call);

// ssh_operations.cpp
void learnHostKeys(OPERATIONS_T &operations, const CallPtr &call);
void forgetShownKeys(OPERATIONS_T &operations, const CallPtr &call);
void signKey(OPERATIONS_T &operations, const CallPtr &call);

// operator_operations.cpp
void showOperator(OPERATIONS_T &operations, const CallPtr &call);
void answerQuestion(OPERATIONS_T &operations, const CallPtr &call);
void listTokens(OPERATIONS_T &operations, const CallPtr &call);
void makeOwnToken(OPERATIONS_T &operations, const CallPtr &call);
void revokeOwnToken(OPERATIONS_T &operations, const CallPtr &call);
void showStatus(OPERATIONS_T &operations, const CallPtr &call);
void reloadFiles(OPERATIONS_T &operations, const CallPtr &call);

} // namespace backend
