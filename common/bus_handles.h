// Owners for what libdbus hands out. Include it in .cpp files only: it brings libdbus with it.
#pragma once

#include "utility/handles.h"

#include <dbus/dbus.h>

using DBusMessagePtr = std::unique_ptr<DBusMessage, Releaser<dbus_message_unref>>;

// A private connection has to be closed by whoever opened it, before its last reference goes.
inline void close_private_connection(DBusConnection *conn) noexcept
{
    dbus_connection_close(conn);
    dbus_connection_unref(conn);
}
using DBusConnectionPtr = std::unique_ptr<DBusConnection, Releaser<close_private_connection>>;

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

private:
    DBusError error_;
};
