// The tool's side of the private bus: one connection, and calls of the daemon's methods.
//
// Threads  one.
// Failure  functions that can fail say so in their result and put the reason, fit to be shown, into
//          the fault text of the record.
#pragma once

#include "utility/bus_handles.h"
#include "utility/json_handles.h"

#include <cstdint>
#include <optional>
#include <string>

struct BUS_CLIENT_T {
    std::string address;
    std::int64_t end_ms = INT64_MAX; // on the monotonic clock: no call waits for longer
    DBusConnectionPtr conn;
    std::string fault;
};

// Fails also for a bus that may be another account's (utility/bus_address.h).
[[nodiscard]] bool connectBus(BUS_CLIENT_T &bus);

// The process that owns the daemon's name, if any.
std::optional<long> daemonProcess(BUS_CLIENT_T &bus);

// Calls a method of the daemon that takes nothing and answers a number or a text. A member that the
// daemon does not know is never answered, so every call has a time-out.
std::optional<int> callForNumber(BUS_CLIENT_T &bus, const char *member);
// The "data" object of the answer; null on a failure.
JsonPtr callForData(BUS_CLIENT_T &bus, const char *member);
