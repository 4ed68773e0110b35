// The commands of the tool. Each command prints its answer and returns the exit status;
// faults are thrown: RequestError, std::invalid_argument for a wrong command line, and
// std::runtime_error for what the system does not allow.
#pragma once

#include "operator/carrier/carrier.h"
#include "operator/settings/choose_server.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

enum OPERATOR_STATUS : int {
    OPERATOR_DONE = 0,
    OPERATOR_REFUSED = 1,     // by the back end, the device or the system; a session was cut off
    OPERATOR_USAGE = 2,       // the command line is wrong
    OPERATOR_UNREACHABLE = 3, // no back end at the control socket or the URL
};

// For an answer of the back end alone, and for one that the device has a part in.
constexpr auto ANSWER_TIME = std::chrono::seconds(10);
constexpr auto DEVICE_ANSWER_TIME = std::chrono::seconds(60);

struct OPERATOR_OPTIONS_T {
    SERVER_CHOICE_T choice;
    BACK_END_T back_end;    // for the commands that need one
    unsigned timeout_s = 0; // for an answer; 0: the command's own
    bool json = false;
    bool names = false;
    bool away = false;
    bool watch = false;
    bool progress = false;
    bool password_stdin = false;
    bool shared = false;  // a forwarded port serves every account
    bool no_keep = false; // plain sessions only
    std::vector<std::string> patterns;
    std::string device;
    std::string user;
    std::string reason;
    std::string session; // its identifier
    std::string target;  // DEVICE/SERVICE
    std::string socket;  // path of a forwarded Unix socket
    std::uint16_t port = 0;
    std::string verb;       // that may be allowed; empty: the usual one
    std::string label;      // of a token
    unsigned days = 0;      // its life; 0: what the back end gives
    std::string token;      // its identifier
    std::string url;        // of the back end to log in to
    std::string ca;         // files of a login
    std::string token_file; // "-": standard input
    std::string certificate;
    std::string key;
    std::string pattern;   // of names, for ssh
    bool full = false;     // with the host keys
    bool recorded = false; // only what the back end has
    bool forget = false;
    std::string identity;               // file of a private key for ssh; empty: a new one
    std::vector<std::string> arguments; // of ssh
    std::string file;                   // that lines are added to; empty: they are printed
    std::vector<std::string> files;     // of the audit, oldest first; "-": standard input
    std::string expected;               // the hash of a line that must be in them; may be empty
};

inline std::chrono::seconds waitOf(const OPERATOR_OPTIONS_T &options, std::chrono::seconds usual)
{
    return options.timeout_s == 0 ? usual : std::chrono::seconds(options.timeout_s);
}

int showDevices(const OPERATOR_OPTIONS_T &options);
int showServices(const OPERATOR_OPTIONS_T &options);
int showSessions(const OPERATOR_OPTIONS_T &options);
int showStatus(const OPERATOR_OPTIONS_T &options);
int showDevice(const OPERATOR_OPTIONS_T &options);
int showIdentity(const OPERATOR_OPTIONS_T &options);
// Refused where it is not allowed.
int showPermission(const OPERATOR_OPTIONS_T &options);
int makeToken(const OPERATOR_OPTIONS_T &options);
int showTokens(const OPERATOR_OPTIONS_T &options);
int revokeToken(const OPERATOR_OPTIONS_T &options);
int logIn(const OPERATOR_OPTIONS_T &options);
int logOut(const OPERATOR_OPTIONS_T &options);
// Lines for ssh's own configuration.
int showSshConfig(const OPERATOR_OPTIONS_T &options);
// Lines for ssh's files of known hosts.
int showKnownHosts(const OPERATOR_OPTIONS_T &options);
// Runs ssh; the exit status is ssh's.
int runSshSession(const OPERATOR_OPTIONS_T &options);
int verifyAccount(const OPERATOR_OPTIONS_T &options);
int disconnectDevice(const OPERATOR_OPTIONS_T &options);
int closeSession(const OPERATOR_OPTIONS_T &options);
// Carries standard input and output, until the service ends the session.
int connectStreams(const OPERATOR_OPTIONS_T &options);
// Carries every connection to a local port or socket, until it is interrupted.
int forwardPort(const OPERATOR_OPTIONS_T &options);
// Checks the chain of the audit's lines; refused means that it is broken.
int verifyAudit(const OPERATOR_OPTIONS_T &options);
