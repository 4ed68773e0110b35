#include "src/watchdog_feed.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "platform/watchdog/watchdog.h"
#include "utility/bus_handles.h"
#include "utility/monotonic_clock.h"

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
