// The feeding of the gateway's watchdog.
#pragma once

#include <ctime>

struct DBusConnection;

constexpr int WATCHDOG_FEED_PERIOD_S = 5; // the declared time-out is four times as long
constexpr char MAIN_THREAD_NAME[] = "mainThread";
constexpr char PROXY_THREAD_NAME[] = "remoteAccessProxyThread";

// Sends a feed when at least period_s whole seconds have passed since *last_feed (monotonic,
// updated in place; zero = never). A null connection does nothing. Callable from every thread that
// holds a reference to the connection; a call that is not due costs a clock read, so long loops may
// call it as often as they like.
void feedWatchdog(DBusConnection *conn, const char *thread_name, int period_s, timespec *last_feed);
