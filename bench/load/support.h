// What every part of the load needs: failures, clocks, figures and loopback sockets.
// Failure  every call ends the process with a line on standard error and status 1.
#pragma once

#include "utility/handles.h"

#include <cstddef>
#include <ctime>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <vector>

constexpr int PROGRESS_MS = 10000; // a socket that makes none for so long is a failure

[[noreturn]] void die(const char *what);
void require(bool good, const char *what);

// Seconds.
double now();
double readClock(clockid_t clock);
void sleepFor(double seconds);

// The clocks of the processes in "PID,PID,...", which count nanoseconds and threads that have
// ended. A PID of 0 is left out.
std::vector<clockid_t> clocksOf(const char *pids);
double sumOf(const std::vector<clockid_t> &clocks);

// Prints one "name value" line.
void report(const std::string &name, double value);
void reportPercentiles(const std::string &name, std::vector<double> &samples);

sockaddr_in loopback(const char *port);
// Their reads and writes fail after PROGRESS_MS.
UniqueFd listenOn(const char *port);
UniqueFd connectTo(const sockaddr_in &address);
UniqueFd acceptFrom(const UniqueFd &listener);
void setReadTimeout(int fd, long milliseconds);
