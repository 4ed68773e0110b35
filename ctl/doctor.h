// The checks of `remote-access-ctl doctor`. Each looks at one thing that the channel or the
// sessions need, with the daemon's own code where there is one, and adds one finding; a check that
// cannot run adds none.
//
// Threads  one.
// Blocking each check ends within about 10 s.
#pragma once

#include "ctl/bus_client.h"

#include <string>
#include <vector>

enum class VERDICT { OK, WARN, FAIL };

struct FINDING_T {
    VERDICT verdict;
    const char *topic;
    std::string text;
    std::string advice; // what to do; empty for OK
};

// The settings as the daemon reads them, with its defaults.
struct ENDPOINT_T {
    std::string host;
    std::string port;
    std::string cert_path;
    bool tls = true;
};

struct EXAMINATION_T {
    BUS_CLIENT_T &bus;
    std::vector<FINDING_T> findings;
    std::optional<long> daemon; // its process
    std::optional<ENDPOINT_T> endpoint;
};

void addFinding(EXAMINATION_T &exam, VERDICT verdict, const char *topic, std::string text,
                std::string advice = "");

// The bus, the daemon on it, its settings and services.
void checkBus(EXAMINATION_T &exam);
void checkSettings(EXAMINATION_T &exam);
void checkServices(EXAMINATION_T &exam);
// Whether a daemon runs on this machine, on the bus or not: it holds the lock file.
bool isLockHeld();
// The machine: clock, account database, lock file.
void checkClock(EXAMINATION_T &exam);
void checkShadow(EXAMINATION_T &exam);
void checkLockFile(EXAMINATION_T &exam);
// Resolver, connection, TLS and the certificate's days, one finding each until one fails.
void checkBackEnd(EXAMINATION_T &exam);
