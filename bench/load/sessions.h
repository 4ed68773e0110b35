// One way, and sessions on it.
#pragma once

#include "bench/load/support.h"

struct WAY_T {
    UniqueFd listener; // the service on the gateway
    sockaddr_in entry; // where operators connect
    std::vector<clockid_t> gateway;
    std::vector<clockid_t> far;
    double window_s;
    bool cheap; // the load's own bulk flows cost as little as they can
};

struct SESSION_T {
    UniqueFd service;
    UniqueFd client;
};

// Ends with the first echoed byte, which also shows that the two ends belong together.
SESSION_T openSession(const WAY_T &way);
std::vector<SESSION_T> openSessions(const WAY_T &way, std::size_t count);
// From the service's side, and waits until the end has come through.
void closeSession(SESSION_T &session);
// Carries up to 64 bytes from one end to the other.
void carry(const UniqueFd &from, const UniqueFd &to, std::size_t size);
