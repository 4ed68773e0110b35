// Owners for libdbus objects. Include it in .cpp files only, because it includes libdbus.
#pragma once

#include "utility/handles.h"

#include <dbus/dbus.h>

using DBusMessagePtr = std::unique_ptr<DBusMessage, Releaser<dbus_message_unref>>;

// A private connection must be closed by the code that opened it, before its last reference ends.
inline void close_private_connection(DBusConnection *conn) noexcept
{
    dbus_connection_close(conn);
    dbus_connection_unref(conn);
}
using DBusConnectionPtr = std::unique_ptr<DBusConnection, Releaser<close_private_connection>>;

// What others on the bus can make this process hold: one message, whose length the bus itself
// limits (a lower bound here would end the connection with the first message above it), what has
// come before it, and hardly any descriptors. Beyond it nothing is read until what is there has
// been dealt with.
inline void bound_bus_input(DBusConnection *conn) noexcept
{
    constexpr long UNREAD_MESSAGES = 4L * 1024 * 1024;
    constexpr long DESCRIPTORS = 16;
    dbus_connection_set_max_message_size(conn, DBUS_MAXIMUM_MESSAGE_LENGTH);
    dbus_connection_set_max_received_size(conn, UNREAD_MESSAGES);
    dbus_connection_set_max_received_unix_fds(conn, DESCRIPTORS);
}

// A DBusError that is initialised and freed; converts to the pointer that libdbus takes.
class BusError {
public:
    BusError() noexcept
    {
        dbus_error_init(&error_);
    }
    ~BusError()
    {
        dbus_error_free(&error_);
    }
    BusError(const BusError &) = delete;
    BusError &operator=(const BusError &) = delete;

    operator DBusError *() noexcept
    {
        return &error_;
    }
    // Null while there is no error.
    const char *message() const noexcept
    {
        return error_.message;
    }

private:
    DBusError error_;
};
