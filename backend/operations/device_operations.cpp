#include "backend/operations/access.h"
#include "backend/operations/verbs.h"

#include <chrono>
#include <fnmatch.h>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::size_t PAGE_CHECK = 64;                   // devices between two looks at the clock
constexpr auto PAGE_TIME = std::chrono::milliseconds(5); // of the one thread, for one answer

ChannelPtr channelOf(const OPERATIONS_T &operations, const DEVICE_KEY_T &device)
{
    ChannelPtr channel = findChannel(operations.directory, device);
    if (!channel) throw OperationFault(FAULT::CONFLICT, device.device_name + " is not connected");
    if (isSilent(*channel)) {
        throw OperationFault(FAULT::DEVICE_TIMEOUT,
                             device.device_name + " is not answering (last heard " +
                                 std::to_string(silenceOf(*channel).count() / 1000) + " s ago)");
    }
    return channel;
}

static const char *stateText(const ChannelPtr &channel)
{
    if (!channel) return "away";
    return isSilent(*channel) ? "not answering" : "connected";
}

static json deviceJson(const DEVICE_VIEW_T &view)
{
    json device = {{"product", view.key->product_key},
                   {"device", view.key->device_name},
                   {"connected", view.channel != nullptr},
                   {"state", stateText(view.channel)},
                   {"duplicate", view.is_duplicate}};
    json &labels = device["labels"] = json::object();
    for (const auto &[name, value] : *view.labels)
        labels[std::string(name)] = value;
    if (view.channel) {
        device["peer"] = view.channel->peer;
        device["since"] = view.channel->connected_at;
        device["services"] = view.channel->services.size();
        device["sessions"] = countSessions(*view.channel);
    }
    if (view.record != nullptr) {
        device["last_seen"] = view.record->last_seen_ms / 1000;
        device["last_reason"] = view.record->last_reason;
        device["last_address"] = view.record->last_address;
    }
    return device;
}

static std::string fullName(const DEVICE_KEY_T &device)
{
    return device.product_key + ":" + device.device_name;
}

static bool isWanted(const ARGUMENTS_T &wanted, const DEVICE_VIEW_T &view)
{
    if (!wanted.pattern.empty() &&
        fnmatch(wanted.pattern.c_str(), view.key->device_name.c_str(), 0) != 0 &&
        fnmatch(wanted.pattern.c_str(), fullName(*view.key).c_str(), 0) != 0)
        return false;
    return wanted.state.empty() || wanted.state == stateText(view.channel);
}

void listDevices(OPERATIONS_T &operations, const CallPtr &call)
{
    json devices = json::array();
    std::optional<DEVICE_KEY_T> next;
    std::size_t visited = 0;
    const ARGUMENTS_T &wanted = call->arguments;
    const auto end = std::chrono::steady_clock::now() + PAGE_TIME;
    const bool is_stranger = operations.policy && !call->who.is_operator;
    visitDevices(operations.directory, wanted.after, [&](const DEVICE_VIEW_T &view) {
        if (is_stranger) return false;
        // What he must not know is neither compared, which would take time, nor the page's end.
        if (!decideFor(operations, call->who, RIGHT::LIST, view.key, {}).isAllowed()) return true;
        if (isWanted(wanted, view)) devices.push_back(deviceJson(view));
        const bool is_late = ++visited % PAGE_CHECK == 0 && std::chrono::steady_clock::now() >= end;
        if (devices.size() < wanted.limit && !is_late) return true;
        next = *view.key;
        return false;
    });
    json answer = {{"ok", true}, {"devices", std::move(devices)}};
    if (next) answer["next"] = fullName(*next);
    call->answer(answer, true);
}

void showDevice(OPERATIONS_T &operations, const CallPtr &call)
{
    const auto view = viewDevice(operations.directory, *call->arguments.device);
    if (!view)
        throw OperationFault(FAULT::NOT_FOUND, noSuchDevice(call->arguments.device->device_name));
    json device = deviceJson(*view);
    if (view->channel && view->channel->keeper) device["keeps"] = true;
    call->answer({{"ok", true}, {"device", std::move(device)}}, true);
}

void listServices(OPERATIONS_T &operations, const CallPtr &call)
{
    const DEVICE_KEY_T &device = *call->arguments.device;
    const ChannelPtr channel = findChannel(operations.directory, device);
    if (!channel) throw OperationFault(FAULT::CONFLICT, device.device_name + " is not connected");
    json services = json::array();
    for (const SERVICE_T &service : channel->services) {
        if (!decideFor(operations, call->who, RIGHT::LIST, &device, service.name).isAllowed())
            continue;
        services.push_back({{"name", service.name},
                            {"type", service.type},
                            {"ip", service.ip},
                            {"port", service.port}});
    }
    json answer = {{"ok", true}, {"services", std::move(services)}};
    if (channel->keeper) answer["keeps"] = true;
    call->answer(answer, true);
}

void verifyAccount(OPERATIONS_T &operations, const CallPtr &call)
{
    const auto record = [call](bool is_right, const std::string &message) {
        AuditMembers members = recordOf(*call);
        members.emplace_back("right", is_right);
        members.emplace_back("reason", message);
        auditRecord(AUDIT_EVENT::ACCOUNT_RESULT, members);
    };
    ChannelPtr channel;
    try {
        channel = channelOf(operations, *call->arguments.device);
    } catch (const OperationFault &fault) {
        record(false, fault.what());
        throw;
    }
    requestAccountCheck(
        *channel, call->arguments.user, call->arguments.password,
        [call, record](const ACCOUNT_RESULT_T &result) {
            record(result.is_answered && result.code == 0, result.message);
            if (!result.is_answered) return refuse(*call, FAULT::DEVICE_TIMEOUT, result.message);
            call->answer({{"ok", true}, {"code", result.code}, {"message", result.message}}, true);
        });
}

void disconnectDevice(OPERATIONS_T &operations, const CallPtr &call)
{
    const DEVICE_KEY_T &device = *call->arguments.device;
    const ChannelPtr channel = findChannel(operations.directory, device);
    if (!channel) throw OperationFault(FAULT::CONFLICT, device.device_name + " is not connected");
    std::string reason = "disconnected by " + call->who.name;
    if (!call->arguments.reason.empty()) reason += ": " + call->arguments.reason;
    closeDeviceChannel(*channel, CLOSE_GOING_AWAY, reason);
    call->answer({{"ok", true}}, true);
}

void switchAccess(OPERATIONS_T & /*operations*/, const CallPtr & /*call*/)
{
    throw OperationFault(FAULT::NOT_BUILT, "this back end cannot switch a device's access");
}

} // namespace backend
