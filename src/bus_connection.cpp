#include "src/bus_connection.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "src/bus_error.h"
#include "src/config.h"
#include "src/mqtt_topics.h"
#include "src/remote_access_local_method.h"
#include "utility/bus_handles.h"
#include "utility/mutex_lock.h"

#include <cstring>
#include <pthread.h>

namespace {

// Operations whose lines are written by helpers here.
constexpr char DISPATCH[] = "localMessagesProc";

// Guards the record's bus_conn pointer between its replacement and the taking of a reference; held
// for nothing longer.
pthread_mutex_t g_bus_mutex = PTHREAD_MUTEX_INITIALIZER;

DBusConnectionPtr replaceConnection(REMOTE_ACCESS_CONFIG_T *record, DBusConnectionPtr fresh)
{
    const MutexLock lock{g_bus_mutex};
    return DBusConnectionPtr{std::exchange(record->bus_conn, fresh.release())};
}

int methodCallProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    const char *const member = dbus_message_get_member(message);
    if (member == nullptr) {
        RA_WARN_FOR(DISPATCH, "get method name error!");
        return -1;
    }
    RA_INFO_FOR(DISPATCH, "receive method call :%s,from message bus.", member);
    for (const LOCAL_METHOD_T &method : localMethods()) {
        if (std::strcmp(method.method_name, member) == 0) {
            method.method_handler(record, message);
            break;
        }
    }
    return 0;
}

int signalProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    const char *const member = dbus_message_get_member(message);
    if (member == nullptr) {
        RA_WARN_FOR(DISPATCH, "get signal name error!");
        return -1;
    }
    RA_INFO_FOR(DISPATCH, "remote access daemon receive signal : %s", member);
    // Whoever sent it: the bus's own policy decides who may.
    if (std::strcmp(member, SUBSCRIBE_EVENT) == 0)
        (void)cloudDownDataProc(record, message); // what cannot be used is logged there
    return 0;
}

} // namespace

void BusConnectionUnref::operator()(DBusConnection *conn) const noexcept
{
    dbus_connection_unref(conn);
}

BusConnectionRef borrowBusConnection(const REMOTE_ACCESS_CONFIG_T *record)
{
    const MutexLock lock{g_bus_mutex};
    return BusConnectionRef{record->bus_conn != nullptr ? dbus_connection_ref(record->bus_conn)
                                                        : nullptr};
}

int connectLocalBus(REMOTE_ACCESS_CONFIG_T *record)
{
    BusError error;
    RA_INFO("bus_address:%s!", BUS_ADDRESS);
    DBusConnectionPtr fresh{dbus_connection_open_private(BUS_ADDRESS, error)};
    if (check_and_abort(error) != 0) {
        RA_WARN("remote access daemon connect dbus error!");
        return -1;
    }
    if (!fresh) {
        RA_WARN("remote access daemon connection to dbus is NULL!");
        return -1;
    }
    bound_bus_input(fresh.get());
    dbus_bus_register(fresh.get(), error);
    if (check_and_abort(error) != 0) {
        fresh.reset();
        RA_WARN("remote access daemon bus register error!");
        return -1;
    }
    dbus_connection_set_exit_on_disconnect(fresh.get(), FALSE); // a lost bus is retried
    if (const DBusConnectionPtr old = replaceConnection(record, std::move(fresh)); old)
        RA_INFO("release old dbus connection!"); // and closed as its owner goes, after the line
    return 0;
}

int registerModule2LocalBus(REMOTE_ACCESS_CONFIG_T *record)
{
    if (record == nullptr) {
        RA_ERROR("input params is NULL");
        return -1;
    }
    if (connectLocalBus(record) != 0) {
        RA_WARN("connection local dbus error!");
        return -1;
    }
    BusError error;
    const int result = dbus_bus_request_name(record->bus_conn, BUS_NAME, 0, error);
    if (check_and_abort(error) != 0) {
        RA_WARN("request well-known-name is error!");
        return -1;
    }
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        RA_WARN("request well-known-name is already running!");
        return -1;
    }
    return 0;
}

int localMessagesProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    switch (dbus_message_get_type(message)) {
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        return methodCallProc(record, message);
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
        RA_INFO("remote access daemon receive method reply:%d",
                static_cast<int>(dbus_message_get_reply_serial(message)));
        return 0;
    case DBUS_MESSAGE_TYPE_SIGNAL:
        return signalProc(record, message);
    default:
        RA_WARN("remote access daemon receive error message!");
        return 0;
    }
}
