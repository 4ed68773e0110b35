// What operators can ask for: one table, behind every door. A request is a JSON object whose "do"
// names the operation:
//   {"do":"devices"}                                    {"ok":true,"devices":[...]}
//        optional: "pattern":P, "state":"connected"|"not answering"|"away", "limit":1...1000 and
//        "after":"PRODUCT_KEY:DEVICE_NAME"; "next" of an answer is the "after" of the rest
//   {"do":"device","device":D}                          {"ok":true,"device":{...}}
//   {"do":"services","device":D}                        {"ok":true,"services":[...]}
//   {"do":"sessions"}                                   {"ok":true,"sessions":[...]}
//   {"do":"status"}                                     {"ok":true,"version":V,"metrics":[...]}
//   {"do":"whoami"}                                     {"ok":true,"operator":O,"from":...}
//   {"do":"can","device":D}                             {"ok":true,"allowed":B,"grant":G}
//        optional: "service":S, "verb":V; "reason" where it is not allowed
//   {"do":"verify","device":D,"user":U,"password":P}    {"ok":true,"code":0,"message":"..."}
//   {"do":"connect","device":D,"service":S}             {"ok":true,"session":"..."}, and when the
//        session ends {"ended":"REASON","whole":true,"bytes_up":N,"bytes_down":N}
//        optional: "shared":true and "client":TEXT, for a port of the operator's that serves
//        others; TEXT is the account that uses it. "keep":KEY of 32 hexadecimal digits for a
//        session that its ends keep over the loss of its line, and "resume":true for another line
//        of it: then the first answer has "kept":true, and "final":true stands in the last one
//        when it cannot be resumed. docs/keeper.md has the rest
//   {"do":"disconnect","device":D}                      {"ok":true}
//        optional: "reason":TEXT
//   {"do":"open","device":D}, {"do":"close-access","device":D}
//   {"do":"close","session":N}                          {"ok":true}
//   {"do":"host-keys","device":D,"service":S}           {"ok":true,"keys":[...]}
//        optional: "keys":["TYPE BASE64",...], which the device has shown
//   {"do":"host-keys-forget","device":D,"service":S}    {"ok":true}
//   {"do":"ssh-certificate","device":D,"service":S,"public_key":K}
//                                                       {"ok":true,"certificate":C,"expires":E,...}
//   {"do":"tokens"}                                     {"ok":true,"tokens":[...]}
//   {"do":"token-make","label":L}                       {"ok":true,"token":T,"id":I,"expires":E}
//        optional: "days":1...366
//   {"do":"token-revoke","id":I}                        {"ok":true,"revoked":[...]}
//   {"do":"reload"}                                     {"ok":true}
// A request that fails is answered with {"ok":false,"error":"...","kind":K}; fault.h has the kinds.
// D is DEVICE_NAME, or PRODUCT_KEY:DEVICE_NAME; N a session's number.
// Each goes the same way: it is parsed, the policy decides, it is recorded where that is due, and
// only then it runs. What an operator may not know of is not there for him: a device that no grant
// of his covers is answered like one that does not exist.
// Ownership  a call belongs to its door, and to what still has to answer it.
// Threads    the thread of the io_context.
// Failure    every fault is an answer; nothing is thrown.
#pragma once

#include "backend/directory/directory.h"
#include "backend/operations/arguments.h"
#include "backend/operations/session_access.h"
#include "backend/policy/policy.h"
#include "backend/sessions/session_table.h"
#include "backend/ssh/certificate_authority.h"
#include "backend/store/host_key_records.h"
#include "backend/store/token_records.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace backend {

// What operations work on. All of it outlives them.
struct OPERATIONS_T {
    DIRECTORY_T &directory;
    SessionTablePtr sessions;
    PolicyPtr policy = nullptr; // null: whoever reaches the control socket may do everything
    TOKEN_RECORDS_T tokens = {};
    SESSION_OWNERS_T session_owners = {};
    HOST_KEY_RECORDS_T host_keys = {};
    SshAuthorityPtr ssh_authority = nullptr; // null: no certificates
    std::chrono::seconds certificate_life{300};
    std::uint64_t last_serial = 0; // of a certificate
    // Reads the files again; the names of those that could not be read come back, empty for none.
    std::function<void(std::function<void(const std::string &failed)>)> reload = nullptr;
};

// Ends what the new one allows no more. null: none.
void replacePolicy(OPERATIONS_T &operations, PolicyPtr policy);

struct CALL_T {
    CALL_T() = default;
    CALL_T(const CALL_T &) = delete;
    CALL_T &operator=(const CALL_T &) = delete;
    ~CALL_T();

    PRINCIPAL_T who;
    // Of the door. The last answer of a call is its end.
    std::function<void(const nlohmann::json &line, bool is_last)> answer;
    // The client to be carried; null when none that can be used came with the request.
    std::function<SessionClientPtr()> take_client;
    ARGUMENTS_T arguments;
    std::optional<std::chrono::seconds> max_session; // of "connect", by the policy
    std::weak_ptr<SESSION_T> session;                // of "connect"
};
using CallPtr = std::shared_ptr<CALL_T>;

void runOperation(OPERATIONS_T &operations, const CallPtr &call, const nlohmann::json &request);

// The channel of a device that answers, or OperationFault in words for the operator.
ChannelPtr channelOf(const OPERATIONS_T &operations, const DEVICE_KEY_T &device);

} // namespace backend
