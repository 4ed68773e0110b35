// The commands of the tool. Each command prints its answer and returns the exit status;
// faults are thrown: ControlError, std::invalid_argument for a wrong command line, and
// std::runtime_error for what the system does not allow.
#pragma once

#include <cstdint>
#include <string>

enum OPERATOR_STATUS : int {
    OPERATOR_DONE = 0,
    OPERATOR_REFUSED = 1,     // by the back end, the device or the system; a session was cut off
    OPERATOR_USAGE = 2,       // the command line is wrong
    OPERATOR_UNREACHABLE = 3, // no back end at the control socket
};

struct OPERATOR_OPTIONS_T {
    std::string control; // path of the back end's control socket
    bool json = false;
    bool watch = false;
    bool progress = false;
    bool password_stdin = false;
    std::string device;
    std::string user;
    std::string target; // DEVICE/SERVICE
    std::uint16_t port = 0;
};

int showDevices(const OPERATOR_OPTIONS_T &options);
int showServices(const OPERATOR_OPTIONS_T &options);
int showSessions(const OPERATOR_OPTIONS_T &options);
int verifyAccount(const OPERATOR_OPTIONS_T &options);
// Carries standard input and output, until the service ends the session.
int connectStreams(const OPERATOR_OPTIONS_T &options);
// Carries every connection to a local port, until it is interrupted.
int forwardPort(const OPERATOR_OPTIONS_T &options);
