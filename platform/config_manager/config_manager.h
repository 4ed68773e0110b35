// Configuration manager, client side: reads keys from the gateway's configuration manager over the
// private bus and asks it for change notices.
//
// Bus      name and interface iot.gateway.config_manager, path /iot/gateway/config_manager, methods
//          get and subscribe.
// Threads  a call uses the connection of its caller and blocks for at most timeout_ms; no state of
//          its own.
// Result   CONFIG_OK, CONFIG_NOT_SET, CONFIG_BAD_ANSWER or CONFIG_NO_ANSWER.
#pragma once

struct DBusConnection;

#ifdef __cplusplus
extern "C" {
#endif

enum CONFIG_RESULT {
    CONFIG_OK = 0,
    CONFIG_NOT_SET = 1,    // the manager does not hold the key
    CONFIG_BAD_ANSWER = 2, // the answer was not understood
    CONFIG_NO_ANSWER = -1, // no connection, no answer in time, or an error answer
};

// On CONFIG_OK *value is a heap text that the caller frees with free(); otherwise it is NULL.
int get_config(struct DBusConnection *conn, const char *key, char **value, int timeout_ms);

// Asks for a notify_config call to the bus name `module` on every change of `key`. flag: 1 =
// subscribe.
int subscribe_config(struct DBusConnection *conn, const char *module, const char *key, int flag,
                     int timeout_ms);

#ifdef __cplusplus
}
#endif
