#include "platform/watchdog/watchdog.h"

#include "utility/bus_handles.h"
#include "utility/utf8.h"

namespace {

constexpr char WATCHDOG_INTERFACE[] = "iot.gateway.watchdog";
constexpr char FEED_MEMBER[] = "feed_dog";

} // namespace

DBusMessage *watchdog_new_feeddog_signal(const char *module, const char *path, const char *thread,
                                         int timeout_s)
{
    if (!is_bus_text(module) || !is_bus_text(thread) || path == nullptr ||
        !dbus_validate_path(path, nullptr)) {
        return nullptr;
    }
    DBusMessagePtr feed{dbus_message_new_signal(path, WATCHDOG_INTERFACE, FEED_MEMBER)};
    const dbus_int32_t wire_timeout = timeout_s;
    if (feed == nullptr ||
        !dbus_message_append_args(feed.get(), DBUS_TYPE_STRING, &module, DBUS_TYPE_STRING, &thread,
                                  DBUS_TYPE_INT32, &wire_timeout, DBUS_TYPE_INVALID)) {
        return nullptr;
    }
    return feed.release();
}
