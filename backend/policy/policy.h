// Who may do what: the grants of operators.json, or without that file the one rule of a single
// machine, that whoever may write to the control socket may do everything. Nothing is allowed that
// no grant allows.
// Shape      a policy is a snapshot that does not change; a reload makes a new one.
// Threads    a policy can be read by any thread; the rest has no state.
// Failure    loadPolicy and parsePolicy throw std::runtime_error whose text names the place, and
//            with loadPolicy the file. decide never fails.
// Limits     the file has at most 16 MiB; names 64 bytes, patterns 255.
#pragma once

#include "backend/device_key.h"
#include "backend/labels.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

enum class RIGHT { LIST, CONNECT, VERIFY, CLOSE, OPEN, MANAGE };
constexpr std::size_t RIGHT_COUNT = 6;

// "list", "connect", ...: as the file has them.
const char *rightName(RIGHT right);
std::optional<RIGHT> findRight(std::string_view name);

enum class DOOR { CONTROL_SOCKET, FORWARDED_PORT, API };

struct PRINCIPAL_T {
    DOOR door = DOOR::CONTROL_SOCKET;
    std::string name;                           // the operator; without a policy the account
    std::string from;                           // process, or address and port
    std::string token;                          // id of the token that proved it, or empty
    std::string account;                        // of the machine that proved it, or empty
    std::vector<std::string> certificate_names; // that proved it
    bool is_operator = true;    // false: an account that no operator of the policy has
    std::int64_t expires = 0;   // of that token, seconds since the epoch; 0: none
    bool is_host_admin = false; // the machine's root, or the back end's own account
};

// What a right is wanted for. Labels may be null: there are none.
struct TARGET_T {
    const DEVICE_KEY_T *device = nullptr; // null: every device
    const Labels *labels = nullptr;
    std::string_view service; // empty: the device as such
};

enum class VERDICT {
    ALLOWED,
    DENIED,  // it may be known to him, but not done
    UNKNOWN, // he must not learn that it exists
};

struct DECISION_T {
    VERDICT verdict = VERDICT::UNKNOWN;
    std::string reason;                              // of a denial
    std::string grant;                               // the name of the first one that decides
    std::optional<std::chrono::seconds> max_session; // the shortest of those that allow it
    [[nodiscard]] bool isAllowed() const
    {
        return verdict == VERDICT::ALLOWED;
    }
};

struct POLICY_T;
using PolicyPtr = std::shared_ptr<const POLICY_T>;

// warnings: what an administrator should know about a file that was accepted.
PolicyPtr loadPolicy(const std::string &path, std::vector<std::string> &warnings);
PolicyPtr parsePolicy(std::string_view text);

// policy: null for a back end without operators.json. Of all grants that allow it, the shortest
// session counts, and one that records is enough to deny CONNECT. A target without a service is
// covered whatever services a grant names; without a device, only a grant over every device covers
// it, and the verdict is never UNKNOWN. That somebody is the host's administrator allows nothing
// here. UNKNOWN's reason is for the audit: to the one who asked it would tell too much.
DECISION_T decide(const POLICY_T *policy, const PRINCIPAL_T &who, RIGHT right,
                  const TARGET_T &target);

// The accounts of the device that a certificate for this service may be made for, without doubles.
std::vector<std::string> sshAccounts(const POLICY_T &policy, const PRINCIPAL_T &who,
                                     const TARGET_T &target);

// ---- who it is

using SHA256_T = std::array<std::uint8_t, 32>;

struct PROVED_T {
    std::string operator_name;
    std::string token; // FILE_TOKEN_T::id of a token, else empty
};

std::optional<PROVED_T> operatorOfAccount(const POLICY_T &policy, std::string_view account);
// Compares in constant time. now: seconds since the epoch; an expired token proves nothing.
std::optional<PROVED_T> operatorOfToken(const POLICY_T &policy, const SHA256_T &hash,
                                        std::int64_t now);
// names: the subject alternative names of a certificate that the CA has signed (DNS, email, URI).
// Those of two operators prove neither.
std::optional<PROVED_T> operatorOfCertificate(const POLICY_T &policy,
                                              const std::vector<std::string> &names);
bool hasOperator(const POLICY_T &policy, std::string_view name);

constexpr std::string_view FILE_TOKEN = "operators.json:"; // how the ids of its tokens begin

// The tokens of the file. What hangs on one of them must not come back to life with the next one of
// the same label: the id has the beginning of the hash.
struct FILE_TOKEN_T {
    std::string id;
    std::string operator_name;
    std::string label;
    std::int64_t expires = 0; // seconds since the epoch
};
std::vector<FILE_TOKEN_T> fileTokens(const POLICY_T &policy);
std::size_t operatorCount(const POLICY_T &policy);
std::size_t grantCount(const POLICY_T &policy);

} // namespace backend
