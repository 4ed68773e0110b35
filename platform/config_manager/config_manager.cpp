#include "platform/config_manager/config_manager.h"

#include "utility/bus_handles.h"
#include "utility/utf8.h"

#include <cstring>

namespace {

constexpr char MANAGER_NAME[] = "iot.gateway.config_manager"; // its interface, too
constexpr char MANAGER_PATH[] = "/iot/gateway/config_manager";

DBusMessagePtr new_call(const char *method)
{
    DBusMessagePtr call{
        dbus_message_new_method_call(MANAGER_NAME, MANAGER_PATH, MANAGER_NAME, method)};
    // The manager is not started on demand: without it the bus must answer at once.
    if (call != nullptr) dbus_message_set_auto_start(call.get(), FALSE);
    return call;
}

// The method return to `call`, null for anything else. An answer that comes after the time-out
// carries the serial of a call that is over, so it is never taken for the answer to a
// later one.
DBusMessagePtr answer_to(DBusConnection *conn, DBusMessage *call, int timeout_ms)
{
    if (conn == nullptr || timeout_ms < 0) return nullptr;
    BusError error;
    return DBusMessagePtr{dbus_connection_send_with_reply_and_block(conn, call, timeout_ms, error)};
}

int result_of(dbus_int32_t code)
{
    if (code == CONFIG_OK || code == CONFIG_NOT_SET) return code;
    return code < 0 ? CONFIG_NO_ANSWER : CONFIG_BAD_ANSWER;
}

} // namespace

int get_config(DBusConnection *conn, const char *key, char **value, int timeout_ms)
{
    if (value == nullptr) return CONFIG_NO_ANSWER;
    *value = nullptr;
    const DBusMessagePtr call = new_call("get");
    if (call == nullptr || !is_bus_text(key) ||
        !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID)) {
        return CONFIG_NO_ANSWER;
    }
    const DBusMessagePtr answer = answer_to(conn, call.get(), timeout_ms);
    if (answer == nullptr) return CONFIG_NO_ANSWER;
    dbus_int32_t code = 0;
    const char *text = nullptr; // borrowed from the answer
    BusError error;
    if (!dbus_message_has_signature(answer.get(), "is") ||
        !dbus_message_get_args(answer.get(), error, DBUS_TYPE_INT32, &code, DBUS_TYPE_STRING, &text,
                               DBUS_TYPE_INVALID)) {
        return CONFIG_BAD_ANSWER;
    }
    const int result = result_of(code);
    if (result != CONFIG_OK) return result;
    *value = ::strdup(text);
    return *value != nullptr ? CONFIG_OK : CONFIG_NO_ANSWER;
}

int subscribe_config(DBusConnection *conn, const char *module, const char *key, int flag,
                     int timeout_ms)
{
    const DBusMessagePtr call = new_call("subscribe");
    const dbus_int32_t wire_flag = flag;
    if (call == nullptr || !is_bus_text(module) || !is_bus_text(key) ||
        !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &module, DBUS_TYPE_STRING, &key,
                                  DBUS_TYPE_INT32, &wire_flag, DBUS_TYPE_INVALID)) {
        return CONFIG_NO_ANSWER;
    }
    const DBusMessagePtr answer = answer_to(conn, call.get(), timeout_ms);
    if (answer == nullptr) return CONFIG_NO_ANSWER;
    dbus_int32_t code = 0;
    BusError error;
    if (!dbus_message_has_signature(answer.get(), "i") ||
        !dbus_message_get_args(answer.get(), error, DBUS_TYPE_INT32, &code, DBUS_TYPE_INVALID)) {
        return CONFIG_BAD_ANSWER;
    }
    return result_of(code);
}
