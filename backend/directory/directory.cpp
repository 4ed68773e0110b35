#include "backend/directory/directory.h"

#include "backend/net/endpoint.h"
#include "backend/observe/audit.h"
#include "backend/observe/events.h"
#include "backend/observe/metrics.h"

namespace backend {

// Of all devices and strangers together; each device has its own limit, too. A fleet that comes
// back is to be seen.
static constinit LINE_LIMIT_T g_refused{"refused handshakes"};
static constinit LINE_LIMIT_T g_duplicates{"devices of one name"};
static constinit LINE_LIMIT_T g_came{"devices that connected", 200};
static constinit LINE_LIMIT_T g_left{"devices that disconnected", 200};

static bool isDuplicate(const DEVICE_RECORD_T *record, std::int64_t now_ms)
{
    return record != nullptr && record->duplicate_ms != 0 &&
           now_ms - record->duplicate_ms < DUPLICATE_MARK_MS;
}

static DEVICE_VIEW_T viewOf(const DIRECTORY_T &directory, const REGISTERED_T &device,
                            std::int64_t now_ms)
{
    const DEVICE_RECORD_T *record = findDeviceRecord(directory.records, device.key);
    return {&device.key, &device.labels, findChannel(directory, device.key), record,
            isDuplicate(record, now_ms)};
}

std::optional<DEVICE_VIEW_T> viewDevice(const DIRECTORY_T &directory, const DEVICE_KEY_T &device)
{
    const REGISTERED_T *registered = directory.registry.find(device);
    if (registered == nullptr) return std::nullopt;
    return viewOf(directory, *registered, wallClockMs());
}

void visitDevices(const DIRECTORY_T &directory, const std::optional<DEVICE_KEY_T> &after,
                  const std::function<bool(const DEVICE_VIEW_T &)> &visit)
{
    const DeviceRegistry &registry = directory.registry;
    const std::int64_t now_ms = wallClockMs();
    std::size_t at = after ? registry.indexAfter(*after) : 0;
    while (at < registry.size() && visit(viewOf(directory, registry[at], now_ms)))
        at++;
}

const Labels *labelsOf(const DIRECTORY_T &directory, const DEVICE_KEY_T &device)
{
    const REGISTERED_T *registered = directory.registry.find(device);
    return registered == nullptr ? nullptr : &registered->labels;
}

std::vector<DEVICE_KEY_T> findDevices(const DIRECTORY_T &directory, std::string_view name)
{
    std::vector<DEVICE_KEY_T> meant;
    for (const REGISTERED_T *device : directory.registry.findMeant(name))
        meant.push_back(device->key);
    return meant;
}

DEVICE_KEY_T findDevice(const DIRECTORY_T &directory, std::string_view name)
{
    return findDeviceByName(directory.registry, name).key;
}

ChannelPtr findChannel(const DIRECTORY_T &directory, const DEVICE_KEY_T &device)
{
    const auto found = directory.connected.find(device);
    return found == directory.connected.end() ? nullptr : found->second;
}

static void noteDuplicate(DIRECTORY_T &directory, const DEVICE_KEY_T &device,
                          const std::string &newer, const std::string &older)
{
    noteDeviceDuplicate(directory.records, device, wallClockMs());
    addToMetric(METRIC::DUPLICATES);
    if (!lineIsAllowed(directory.lines, device, DEVICE_LINE::DUPLICATE)) return;
    logLimited(g_duplicates, LOG_LEVEL::WARNING,
               "two devices use the name %s: the one from %s is turned away, the one from %s stays",
               device.device_name.c_str(), newer.c_str(), older.c_str());
    auditRecord(AUDIT_EVENT::DEVICE_DUPLICATE, {{"product", device.product_key},
                                                {"device", device.device_name},
                                                {"from", newer},
                                                {"other", older}});
}

// Whether a device that comes now would displace another too soon after the last time.
static bool isTooSoon(DIRECTORY_T &directory, const DEVICE_KEY_T &device)
{
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(directory.displaced,
                  [now](const auto &entry) { return now - entry.second >= DISPLACE_PERIOD; });
    return directory.displaced.contains(device);
}

static HANDSHAKE_RESULT_T refuse(HANDSHAKE_RESULT_T result, HANDSHAKE_CODE code, const char *detail)
{
    return {code, detail, std::move(result.device), {}, 0, {}};
}

// Of a device whose handshake is right. The store has answered meanwhile: what was so before may
// have changed.
static HANDSHAKE_RESULT_T admit(DIRECTORY_T &directory, SIGNATURE_USE use, const std::string &peer,
                                HANDSHAKE_RESULT_T result)
{
    if (use == SIGNATURE_USE::REPLAYED)
        return refuse(std::move(result), HANDSHAKE_BAD_SIGNATURE, "signature used before");
    if (use == SIGNATURE_USE::UNRECORDED)
        return refuse(std::move(result), HANDSHAKE_UNAVAILABLE, "the store cannot be written");
    const REGISTERED_T *known = directory.registry.find(result.device);
    if (known == nullptr || !isSecretOf(*known, result.proved_secret, wallClockMs() / 1000))
        return refuse(std::move(result), HANDSHAKE_BAD_SIGNATURE, "its entry has just changed");
    const ChannelPtr older = findChannel(directory, result.device);
    if (!older || !isTooSoon(directory, result.device)) return result;
    noteDuplicate(directory, result.device, peer, older->peer);
    return refuse(std::move(result), HANDSHAKE_DUPLICATE,
                  "another device of this name has just come");
}

void checkDevice(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel, const MESSAGE_T &message,
                 HandshakeAnswer answered)
{
    const std::int64_t now_ms = wallClockMs();
    HANDSHAKE_RESULT_T result = checkHandshake(message, directory.registry, now_ms / 1000);
    if (result.code != HANDSHAKE_ACCEPTED) return answered(std::move(result));
    const DEVICE_KEY_T device = result.device;
    const std::int64_t signed_second = result.signed_second;
    claimSignature(directory.signatures, device, signed_second, addressOf(channel.peer), now_ms,
                   [&directory, peer = channel.peer, result = std::move(result),
                    answered = std::move(answered)](SIGNATURE_USE use) {
                       answered(admit(directory, use, peer, result));
                   });
}

void deviceRefused(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel,
                   const HANDSHAKE_RESULT_T &result)
{
    const DEVICE_KEY_T &device = result.device;
    if (directory.registry.find(device) != nullptr &&
        !lineIsAllowed(directory.lines, device, DEVICE_LINE::REFUSAL))
        return;
    if (result.code != HANDSHAKE_DUPLICATE) // has a line of its own
        logLimited(g_refused, LOG_LEVEL::WARNING,
                   "handshake of device \"%s\" from %s refused: code %d, %s",
                   device.device_name.c_str(), channel.peer.c_str(), result.code,
                   result.detail.c_str());
    auditRecord(AUDIT_EVENT::HANDSHAKE_REFUSED, {{"product", device.product_key},
                                                 {"device", device.device_name},
                                                 {"from", channel.peer},
                                                 {"reason", result.detail}});
}

static std::string serviceNames(const DEVICE_CHANNEL_T &channel)
{
    std::string names;
    for (const SERVICE_T &service : channel.services) {
        if (!names.empty()) names += ", ";
        names += service.name;
    }
    return names.empty() ? "none" : names;
}

static void tellConnected(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel,
                          const std::string &remark)
{
    if (!lineIsAllowed(directory.lines, channel.device, DEVICE_LINE::VISIT)) return;
    logLimited(g_came, LOG_LEVEL::INFO, "device %s connected, services: %s%s%s",
               channel.device.device_name.c_str(), serviceNames(channel).c_str(),
               remark.empty() ? "" : "; ", remark.c_str());
    auditRecord(AUDIT_EVENT::DEVICE_CONNECTED, {{"product", channel.device.product_key},
                                                {"device", channel.device.device_name},
                                                {"from", channel.peer}});
}

// newer: the channel that has replaced it, or null.
static void tellDisconnected(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel,
                             const DEVICE_CHANNEL_T *newer, const std::string &reason)
{
    if (!lineIsAllowed(directory.lines, channel.device, DEVICE_LINE::VISIT)) return;
    logLimited(g_left, LOG_LEVEL::INFO, "device %s (%s) disconnected: %s",
               channel.device.device_name.c_str(), channel.peer.c_str(), reason.c_str());
    AuditMembers members{{"product", channel.device.product_key},
                         {"device", channel.device.device_name}};
    if (newer != nullptr) {
        members.emplace_back("from", newer->peer);
        members.emplace_back("other", channel.peer);
        auditRecord(AUDIT_EVENT::DEVICE_REPLACED, members);
    } else {
        members.emplace_back("from", channel.peer);
        members.emplace_back("reason", reason);
        auditRecord(AUDIT_EVENT::DEVICE_DISCONNECTED, members);
    }
}

void deviceConnected(DIRECTORY_T &directory, const ChannelPtr &channel, const std::string &remark)
{
    const ChannelPtr older = std::exchange(directory.connected[channel->device], channel);
    noteDeviceCame(directory.records, channel->device, addressOf(channel->peer), wallClockMs());
    setMetric(METRIC::DEVICES_CONNECTED, directory.connected.size());
    tellConnected(directory, *channel, remark);
    if (older) {
        noteDeviceReplaced(directory.records, channel->device, wallClockMs());
        directory.displaced[channel->device] = std::chrono::steady_clock::now();
        // Its sessions are void: identifiers may come a second time from a device that has started
        // again.
        closeDeviceChannel(*older, CLOSE_GOING_AWAY, "replaced by a newer connection");
    }
    publish({EVENT::DEVICE_CONNECTED, channel->device, {}, {}, {}, {}});
}

void deviceGone(DIRECTORY_T &directory, const ChannelPtr &channel, const std::string &reason)
{
    if (channel->connected_at == 0) return; // claimed the name only
    const ChannelPtr current = findChannel(directory, channel->device);
    if (current != channel) return tellDisconnected(directory, *channel, current.get(), reason);
    directory.connected.erase(channel->device);
    noteDeviceLeft(directory.records, channel->device, reason, wallClockMs());
    setMetric(METRIC::DEVICES_CONNECTED, directory.connected.size());
    tellDisconnected(directory, *channel, nullptr, reason);
    publish({EVENT::DEVICE_DISCONNECTED, channel->device, {}, {}, {}, reason});
}

// Calls step for each of the sorted keys that a map has, with the device of that key or null. A
// walk beside the keys: a look-up for each would stop everything else for a while when there are
// a hundred thousand.
template <class Map, class Step>
static void walkBeside(const Map &map, const DeviceRegistry &registry, Step step)
{
    std::size_t next = 0;
    for (const auto &[key, value] : map) {
        while (next < registry.size() && registry[next].key < key)
            next++;
        const bool is_there = next < registry.size() && registry[next].key == key;
        step(key, value, is_there ? &registry[next] : nullptr);
    }
}

void forgetUnregistered(DIRECTORY_T &directory)
{
    std::vector<DEVICE_KEY_T> gone;
    walkBeside(directory.records.records, directory.registry,
               [&gone](const DEVICE_KEY_T &key, const DEVICE_RECORD_T & /*record*/,
                       const REGISTERED_T *device) {
                   if (device == nullptr) gone.push_back(key);
               });
    for (const DEVICE_KEY_T &key : gone)
        forgetDevice(directory.records, key);
}

DeviceRegistry replaceRegistry(DIRECTORY_T &directory, DeviceRegistry registry)
{
    struct CHANGE_T {
        ChannelPtr channel;
        const char *reason;
    };
    const std::int64_t now_s = wallClockMs() / 1000;
    std::vector<CHANGE_T> changes; // closing a channel changes the map
    std::swap(directory.registry, registry);
    walkBeside(
        directory.connected, directory.registry,
        [&](const DEVICE_KEY_T & /*key*/, const ChannelPtr &channel, const REGISTERED_T *device) {
            if (device == nullptr)
                changes.push_back({channel, "removed from the registry"});
            else if (!isSecretOf(*device, channel->proved_secret, now_s))
                changes.push_back({channel, "its secret in the registry has changed"});
        });
    for (const CHANGE_T &change : changes)
        closeDeviceChannel(*change.channel, CLOSE_REFUSED, change.reason);
    forgetUnregistered(directory);
    return registry;
}

void closeDirectory(DIRECTORY_T &directory, const std::string &reason)
{
    for (const auto &[key, channel] : std::map(directory.connected))
        closeDeviceChannel(*channel, CLOSE_GOING_AWAY, reason);
    tellAllLeftOut(directory.lines);
}

} // namespace backend
