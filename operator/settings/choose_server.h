// Which back end a command goes to.
#pragma once

#include "operator/settings/server.h"

#include <string>

constexpr char DEFAULT_CONTROL[] = "/run/remote-access/control";
constexpr char LOCAL_SERVER[] = "local"; // as --server takes it: the control socket

struct SERVER_CHOICE_T {
    std::string control; // --control or its environment; may be empty
    std::string server;  // --server or its environment: "local" or a URL; may be empty
};

// The server that is named; else the control socket that is named or there; else the usual one of
// the logins. Throws std::runtime_error for a server without a login.
SERVER_T chooseServer(const SERVER_CHOICE_T &choice);
