#include "ctl/bus_client.h"

#include "common/bus_names.h"
#include "ctl/output.h"
#include "utility/bus_address.h"
#include "utility/monotonic_clock.h"

#include <algorithm>

namespace {

// queryRemoteThreadRunState, which another caller may have sent, blocks the daemon for 3 s.
constexpr int CALL_TIMEOUT_MS = 5000;

int timeoutOf(const BUS_CLIENT_T &bus)
{
    const std::int64_t left_ms = bus.end_ms - milliseconds_of(monotonic_now());
    return static_cast<int>(std::clamp<std::int64_t>(left_ms, 1, CALL_TIMEOUT_MS));
}

DBusMessagePtr call(BUS_CLIENT_T &bus, const char *member)
{
    const DBusMessagePtr request{
        dbus_message_new_method_call(BUS_NAME, BUS_OBJECT_PATH, BUS_NAME, member)};
    if (!request) {
        bus.fault = "out of memory";
        return nullptr;
    }
    dbus_message_set_auto_start(request.get(), 0);
    BusError error;
    DBusMessagePtr answer{dbus_connection_send_with_reply_and_block(bus.conn.get(), request.get(),
                                                                    timeoutOf(bus), error)};
    if (!answer) {
        if (dbus_error_has_name(error, DBUS_ERROR_SERVICE_UNKNOWN) != 0 ||
            dbus_error_has_name(error, DBUS_ERROR_NAME_HAS_NO_OWNER) != 0)
            bus.fault = "remote_access_daemon does not run, or not on this bus";
        else
            bus.fault = shown(error.message());
    }
    return answer;
}

template <class T> std::optional<T> firstArgument(const DBusMessagePtr &answer, int type)
{
    T value{};
    if (!answer ||
        dbus_message_get_args(answer.get(), nullptr, type, &value, DBUS_TYPE_INVALID) == 0)
        return std::nullopt;
    return value;
}

// dbus_bus_register would wait for 25 s, and without end for a bus that does not even authenticate.
bool registerConnection(const BUS_CLIENT_T &bus, DBusError *error)
{
    const std::int64_t end_ms = milliseconds_of(monotonic_now()) + timeoutOf(bus);
    while (dbus_connection_get_is_authenticated(bus.conn.get()) == 0) {
        const std::int64_t left_ms = end_ms - milliseconds_of(monotonic_now());
        if (left_ms <= 0 ||
            dbus_connection_read_write(bus.conn.get(), static_cast<int>(left_ms)) == 0)
            return false;
    }
    const DBusMessagePtr hello{dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                            DBUS_INTERFACE_DBUS, "Hello")};
    if (!hello) return false;
    const DBusMessagePtr answer{dbus_connection_send_with_reply_and_block(
        bus.conn.get(), hello.get(), timeoutOf(bus), error)};
    const auto name = firstArgument<const char *>(answer, DBUS_TYPE_STRING);
    return name && dbus_bus_set_unique_name(bus.conn.get(), *name) != 0;
}

} // namespace

bool connectBus(BUS_CLIENT_T &bus)
{
    bus.conn.reset();
    std::string reason = bus_address_fault(bus.address);
    if (reason.empty()) {
        BusError error;
        bus.conn.reset(dbus_connection_open_private(bus.address.c_str(), error));
        if (bus.conn) {
            dbus_connection_set_exit_on_disconnect(bus.conn.get(), 0);
            if (!registerConnection(bus, error)) bus.conn.reset();
        }
        reason = dbus_error_is_set(error) != 0 ? error.message() : "it does not answer";
    }
    if (!bus.conn) bus.fault = "no bus at " + bus.address + ": " + reason;
    return bus.conn != nullptr;
}

std::optional<long> daemonProcess(BUS_CLIENT_T &bus)
{
    const DBusMessagePtr request{dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID")};
    const char *const name = BUS_NAME;
    if (!request ||
        dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID) == 0)
        return std::nullopt;
    const DBusMessagePtr answer{dbus_connection_send_with_reply_and_block(
        bus.conn.get(), request.get(), timeoutOf(bus), nullptr)};
    const auto pid = firstArgument<dbus_uint32_t>(answer, DBUS_TYPE_UINT32);
    return pid ? std::optional<long>{*pid} : std::nullopt;
}

std::optional<int> callForNumber(BUS_CLIENT_T &bus, const char *member)
{
    const DBusMessagePtr answer = call(bus, member);
    if (!answer) return std::nullopt;
    const auto number = firstArgument<dbus_int32_t>(answer, DBUS_TYPE_INT32);
    if (!number)
        bus.fault = std::string(member) + " was answered with something else than a number";
    return number;
}

JsonPtr callForData(BUS_CLIENT_T &bus, const char *member)
{
    const DBusMessagePtr answer = call(bus, member);
    if (!answer) return nullptr;
    const auto text = firstArgument<const char *>(answer, DBUS_TYPE_STRING);
    const JsonPtr root{text ? cJSON_Parse(*text) : nullptr};
    JsonPtr data{cJSON_DetachItemFromObject(root.get(), "data")};
    if (!cJSON_IsObject(data.get())) {
        bus.fault = std::string(member) + " was answered with something else than a JSON document";
        return nullptr;
    }
    return data;
}
