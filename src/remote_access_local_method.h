// The methods that the daemon offers to the other modules of the gateway, by bus member name.
#pragma once

#include <span>

struct DBusMessage;
struct REMOTE_ACCESS_CONFIG_T;

// A handler builds and sends its own reply. Main thread only.
using LOCAL_METHOD_FUNC_T = void (*)(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);

struct LOCAL_METHOD_T {
    const char *method_name;
    LOCAL_METHOD_FUNC_T method_handler;
};

// The method table, in the order in which it is searched.
std::span<const LOCAL_METHOD_T> localMethods();
int getLocalMethodCount();
