// Watchdog, client side: builds the signal that informs the gateway's watchdog that a thread is
// alive.
//
// Signal  on `path`, interface iot.gateway.watchdog, member feed_dog; arguments string module,
//         string thread, int32 seconds after which the watchdog reports the thread unless it was
//         fed again.
// Result  a new message, owned by the caller (dbus_message_unref), or NULL when it could not be
//         made.
#pragma once

struct DBusMessage;

#ifdef __cplusplus
extern "C" {
#endif

struct DBusMessage *watchdog_new_feeddog_signal(const char *module, const char *path,
                                                const char *thread, int timeout_s);

#ifdef __cplusplus
}
#endif
