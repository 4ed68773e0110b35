#include "src/bus_error.h"

#include "common/log.h"

#include <dbus/dbus.h>

int check_and_abort(DBusError *error)
{
    if (dbus_error_is_set(error) == 0) return 0;
    RA_ERROR("DBus error:%s!\n", error->message);
    dbus_error_free(error);
    return -1;
}
