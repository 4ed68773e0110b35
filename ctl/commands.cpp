#include "ctl/commands.h"

#include "ctl/output.h"
#include "src/cloud_protocol.h"
#include "utility/monotonic_clock.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr std::int64_t WAIT_STEP_MS = 300;

int noDaemon(const BUS_CLIENT_T &bus)
{
    (void)std::fprintf(stderr, "remote-access-ctl: %s\n", bus.fault.c_str());
    return CTL_NO_DAEMON;
}

std::optional<bool> stateOf(BUS_CLIENT_T &bus, const char *member)
{
    const JsonPtr data = callForData(bus, member);
    if (!data) return std::nullopt;
    return memberNumber(data.get(), "state", 0) == 1;
}

JsonPtr listOf(BUS_CLIENT_T &bus, const char *member, const char *name)
{
    const JsonPtr data = callForData(bus, member);
    if (!data) return nullptr;
    JsonPtr list{cJSON_DetachItemFromObjectCaseSensitive(data.get(), name)};
    // Before the daemon has read its configuration there is no list.
    return list ? std::move(list) : JsonPtr{cJSON_CreateArray()};
}

JsonPtr sessionList(BUS_CLIENT_T &bus)
{
    return listOf(bus, "queryAllSessionInfo", "sessionList");
}

JsonPtr serviceList(BUS_CLIENT_T &bus)
{
    return listOf(bus, "queryEdgeServicesAvailable", "serviceList");
}

struct STATUS_T {
    bool connected;
    std::optional<bool> thread;
    JsonPtr services;
    JsonPtr sessions;
};

std::optional<STATUS_T> readStatus(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options)
{
    const auto connected = stateOf(bus, "queryRemoteChannelState");
    if (!connected) return std::nullopt;
    STATUS_T status{*connected, std::nullopt, serviceList(bus), nullptr};
    if (status.services) status.sessions = sessionList(bus);
    if (!status.sessions) return std::nullopt;
    if (options.thread) {
        status.thread = stateOf(bus, "queryRemoteThreadRunState");
        if (!status.thread) return std::nullopt;
    }
    return status;
}

// The daemon reports its channel, not its switch: while the channel is up the switch is on.
void printStatus(STATUS_T &status, bool json)
{
    const int used = cJSON_GetArraySize(status.sessions.get());
    const int services = cJSON_GetArraySize(status.services.get());
    if (json) {
        const JsonPtr root{cJSON_CreateObject()};
        cJSON_AddStringToObject(root.get(), "switch", status.connected ? "on" : "unknown");
        cJSON_AddStringToObject(root.get(), "channel", status.connected ? "up" : "down");
        cJSON *const sessions = cJSON_AddObjectToObject(root.get(), "sessions");
        cJSON_AddNumberToObject(sessions, "used", used);
        cJSON_AddNumberToObject(sessions, "free", MAX_SESSIONS - used);
        if (status.thread) cJSON_AddBoolToObject(root.get(), "threadAlive", *status.thread ? 1 : 0);
        cJSON_AddItemToObject(root.get(), "services", status.services.release());
        return printJson(root.get());
    }
    std::printf("switch    %s\n", status.connected
                                      ? "on"
                                      : "not known while the channel is down: remote-access-ctl "
                                        "open switches it on");
    std::printf("channel   %s\n", status.connected ? "up" : "down");
    std::printf("services  %d\n", services);
    std::printf("sessions  %d used, %d free\n", used, MAX_SESSIONS - used);
    if (status.thread) std::printf("thread    %s\n", *status.thread ? "alive" : "stands still");
}

int command(BUS_CLIENT_T &bus, const char *member, const char *done)
{
    if (!connectBus(bus)) return noDaemon(bus);
    const auto result = callForNumber(bus, member);
    if (!result) return noDaemon(bus);
    if (*result != 0) {
        (void)std::fprintf(stderr, "remote-access-ctl: %s was answered with %d\n", member, *result);
        return CTL_NO;
    }
    std::puts(done);
    return CTL_YES;
}

} // namespace

int showStatus(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options)
{
    if (!connectBus(bus)) return noDaemon(bus);
    auto status = readStatus(bus, options);
    if (!status) return noDaemon(bus);
    printStatus(*status, options.json);
    return status->connected ? CTL_YES : CTL_NO;
}

int showSessions(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options)
{
    if (!connectBus(bus)) return noDaemon(bus);
    const JsonPtr sessions = sessionList(bus);
    if (!sessions) return noDaemon(bus);
    if (options.json) {
        printJson(sessions.get());
        return CTL_YES;
    }
    std::printf("%-30s  %6s  %s\n", "SESSION", "SOCKET", "SERVICE");
    const cJSON *session = nullptr;
    cJSON_ArrayForEach(session, sessions.get())
    {
        const std::string name = memberText(session, "serviceName");
        std::printf("%-30s  %6d  %s\n", memberText(session, "sessionId").c_str(),
                    memberNumber(session, "socket", -1),
                    name.empty() ? "(not in the list)" : name.c_str());
    }
    return CTL_YES;
}

int showServices(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options)
{
    if (!connectBus(bus)) return noDaemon(bus);
    const JsonPtr services = serviceList(bus);
    if (!services) return noDaemon(bus);
    if (options.json) {
        printJson(services.get());
        return CTL_YES;
    }
    std::printf("%-31s  %-15s  %s\n", "NAME", "TYPE", "ADDRESS");
    const cJSON *service = nullptr;
    cJSON_ArrayForEach(service, services.get())
    {
        std::printf("%-31s  %-15s  %s:%d\n", memberText(service, "service_name").c_str(),
                    memberText(service, "service_type").c_str(),
                    memberText(service, "service_ip").c_str(),
                    memberNumber(service, "service_port", -1));
    }
    return CTL_YES;
}

int openAccess(BUS_CLIENT_T &bus, const CTL_OPTIONS_T & /*options*/)
{
    return command(bus, "OpenRemoteAccess", "remote access is switched on; the channel opens now");
}

int closeAccess(BUS_CLIENT_T &bus, const CTL_OPTIONS_T & /*options*/)
{
    return command(bus, "CloseRemoteAccess",
                   "remote access is switched off; the channel and its sessions close now");
}

int waitConnected(BUS_CLIENT_T &bus, const CTL_OPTIONS_T &options)
{
    const auto left_ms = [&bus] { return bus.end_ms - milliseconds_of(monotonic_now()); };
    if (options.timeout_s > 0)
        bus.end_ms =
            milliseconds_of(monotonic_now()) + static_cast<std::int64_t>(options.timeout_s * 1000);
    std::string fault;
    int status = CTL_NO_DAEMON;
    while (fault.empty() || left_ms() > 0) {
        const bool bus_is_up =
            (bus.conn && dbus_connection_get_is_connected(bus.conn.get()) != 0) || connectBus(bus);
        const auto state = bus_is_up ? stateOf(bus, "queryRemoteChannelState") : std::nullopt;
        if (state.value_or(false)) return CTL_YES;
        const std::int64_t left = left_ms();
        if (state || left > 0 || fault.empty()) { // the end of the time may have cut a call short
            fault = state ? "the channel is down" : bus.fault;
            status = state ? CTL_NO : CTL_NO_DAEMON;
        }
        ::usleep(static_cast<useconds_t>(std::clamp(left, std::int64_t{0}, WAIT_STEP_MS) * 1000));
    }
    (void)std::fprintf(stderr, "remote-access-ctl: not connected within %g s: %s\n",
                       options.timeout_s, fault.c_str());
    return status;
}
