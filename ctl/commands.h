// The commands of the tool. Each command prints its answer and returns the exit status.
#pragma once

#include "ctl/bus_client.h"

enum CTL_STATUS : int {
    CTL_YES = 0,       // done; for status and wait: the channel is up; for doctor: nothing failed
    CTL_NO = 1,        // the channel is down; a check failed
    CTL_USAGE = 2,     // the command line is wrong
    CTL_NO_DAEMON = 3, // the bus or the daemon cannot be reached
};

struct CTL_OPTIONS_T {
    bool json = false;
    bool thread = false;    // also ask whether the channel's thread is alive
    bool connected = false; // what wait waits for
    double timeout_s = 60;  // of wait; 0: without end
};

int showStatus(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
int showSessions(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
int showServices(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
int openAccess(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
int closeAccess(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
// Polls, and also waits for a daemon or a bus that is not there.
int waitConnected(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
// Looks at everything that the channel and the sessions need: doctor.h.
int examine(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options);
