// The feeding of the gateway's watchdog, for each of the two threads that it watches.
#pragma once

#include <ctime>

struct DBusConnection;
struct REMOTE_ACCESS_CONFIG_T;

constexpr int WATCHDOG_FEED_PERIOD_S = 5; // the declared time-out is four times as long
constexpr char MAIN_THREAD_NAME[] = "mainThread";
constexpr char PROXY_THREAD_NAME[] = "remoteAccessProxyThread";

// Sends a feed when at least period_s whole seconds have passed since *last_feed (monotonic,
// updated in place; zero = never). A null connection does nothing. Callable from every thread that
// holds a reference to the connection; a call that is not due costs a clock read, so long loops may
// call it as often as they like.
void feedWatchdog(DBusConnection *conn, const char *thread_name, int period_s, timespec *last_feed);

// For the proxy thread alone, which has no connection of its own and borrows the main thread's.
// startProxyWatchdog names the record that holds that connection and sends the first feed;
// feedProxyWatchdog sends one when it is due, and does nothing before the start.
void startProxyWatchdog(const REMOTE_ACCESS_CONFIG_T *record);
void feedProxyWatchdog();
// The next feed is due a whole period from now.
void restartProxyWatchdogPeriod();
