#include "src/watchdog_feed.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "platform/watchdog/watchdog.h"
#include "src/bus_connection.h"
#include "utility/bus_handles.h"
#include "utility/monotonic_clock.h"

namespace {

struct PROXY_WATCHDOG_T {
    const REMOTE_ACCESS_CONFIG_T *record;
    timespec last_feed;
};
PROXY_WATCHDOG_T g_proxy_watchdog{};

} // namespace

void feedWatchdog(DBusConnection *conn, const char *thread_name, int period_s, timespec *last_feed)
{
    if (conn == nullptr) return;
    if (monotonic_now().tv_sec - last_feed->tv_sec < period_s) return;
    const DBusMessagePtr feed{
        watchdog_new_feeddog_signal(BUS_NAME, BUS_OBJECT_PATH, thread_name, period_s * 4)};
    if (!feed) {
        RA_WARN("feed dog message create error!");
        return;
    }
    dbus_connection_send(conn, feed.get(), nullptr);
    *last_feed = monotonic_now();
}

void startProxyWatchdog(const REMOTE_ACCESS_CONFIG_T *record)
{
    g_proxy_watchdog = {record, {}};
    feedProxyWatchdog();
}

void feedProxyWatchdog()
{
    if (g_proxy_watchdog.record == nullptr) return;
    const BusConnectionRef conn = borrowBusConnection(g_proxy_watchdog.record);
    feedWatchdog(conn.get(), PROXY_THREAD_NAME, WATCHDOG_FEED_PERIOD_S,
                 &g_proxy_watchdog.last_feed);
}

void restartProxyWatchdogPeriod()
{
    g_proxy_watchdog.last_feed = monotonic_now();
}
