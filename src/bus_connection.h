// The main connection to the gateway's private bus: opening, the well-known name, and the dispatch
// of what arrives.
//
// Owner    the record's bus_conn owns the connection; the main thread alone replaces it.
// Threads  the main thread, except borrowBusConnection, which every thread may call.
// Failure  logged here, 0 / -1; the main loop retries once a second. Nothing is fatal.
#pragma once

#include <memory>

struct DBusConnection;
struct DBusMessage;
struct REMOTE_ACCESS_CONFIG_T;

// Opens and registers a private connection and puts it into the record, closing the one before. On
// failure the record stays as it is.
[[nodiscard]] int connectLocalBus(REMOTE_ACCESS_CONFIG_T *record);

// Connects and claims the well-known name. 0 when this connection is its owner; -1 otherwise, and a
// connection that is only queued for the name stays in use.
[[nodiscard]] int registerModule2LocalBus(REMOTE_ACCESS_CONFIG_T *record);

// Dispatches one message; the caller keeps it. 0, or -1 for a call or a signal without a member
// name.
int localMessagesProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);

struct BusConnectionUnref {
    void operator()(DBusConnection *conn) const noexcept;
};
using BusConnectionRef = std::unique_ptr<DBusConnection, BusConnectionUnref>;

// A reference to the record's connection, which stays usable while it is held even if the main
// thread replaces the connection meanwhile. Null while there is none.
BusConnectionRef borrowBusConnection(const REMOTE_ACCESS_CONFIG_T *record);
