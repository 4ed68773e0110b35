// The methods that the daemon offers to the other modules of the gateway, by bus member name. Every
// handler builds and sends its own reply; docs/operating.md shows each with its answer.
//
// Threads  the main thread, one handler at a time. What other threads own is read through atomics
//          and through the session table's locked operations.
// Blocking "queryRemoteThreadRunState" holds the main thread for 1 to 3 s; the others for a
//          fraction of a millisecond.
// Failure  a bad argument is answered with -1; a document that cannot be built is not answered at
//          all.
#pragma once

#include <span>

struct DBusMessage;
struct REMOTE_ACCESS_CONFIG_T;

using LOCAL_METHOD_FUNC_T = void (*)(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);

struct LOCAL_METHOD_T {
    const char *method_name;
    LOCAL_METHOD_FUNC_T method_handler;
};

// The method table, in the order in which it is searched.
std::span<const LOCAL_METHOD_T> localMethods();
int getLocalMethodCount();

// Handlers. "GetRemoteAccessSession" answers 0 when no open session has the identifier, and -1 when
// one has it and also when the request is malformed: that is what the modules that call it expect.
void remoteAccessMethodIntrospect(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void openRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void closeRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void getRemoteAccessSession(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void syncConfigParam(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void queryRemoteChannelState(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void queryEdgeServicesAvailable(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void queryRemoteThreadRunState(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
void queryAllSessionInfo(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);

// Sets the remote-access switch, any integer, and marks it for the proxy thread.
void commandRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, int remote_switch);
