// Which devices there are, which of them is connected by which channel, and what is known of the
// others.
// Ownership  the directory holds the channels of connected devices. Registry, records and used
//            signatures are its own; it must outlive the channels' last event and what the store
//            has still to answer.
// Threads    the thread of the io_context.
// Duplicates the newest channel of a device wins, because a device that has lost its line comes
//            back before the old channel is known to be dead. Two devices with one name would
//            displace each other without end: one that comes within DISPLACE_PERIOD of the last
//            displacement is turned away, and the name is marked.
#pragma once

#include "backend/devices/device_channel.h"
#include "backend/devices/device_registry.h"
#include "backend/devices/used_signatures.h"
#include "backend/directory/device_lines.h"
#include "backend/policy/policy.h"
#include "backend/store/device_records.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

constexpr auto DISPLACE_PERIOD = std::chrono::seconds(10);
constexpr std::int64_t DUPLICATE_MARK_MS = 600'000; // how long a name stays marked

struct DIRECTORY_T {
    DeviceRegistry registry;
    DEVICE_RECORDS_T records;
    USED_SIGNATURES_T signatures;
    std::map<DEVICE_KEY_T, ChannelPtr> connected;
    std::map<DEVICE_KEY_T, std::chrono::steady_clock::time_point> displaced; // lately
    DEVICE_LINES_T lines;
};

// What an operator is shown of a device.
struct DEVICE_VIEW_T {
    const DEVICE_KEY_T *key;
    const Labels *labels;
    ChannelPtr channel;            // null while it is away
    const DEVICE_RECORD_T *record; // null: it has never been there
    bool is_duplicate;
};
// None: it is not registered. Valid until the registry is replaced.
std::optional<DEVICE_VIEW_T> viewDevice(const DIRECTORY_T &directory, const DEVICE_KEY_T &device);

// In the order of their keys, those behind `after` if it is given, until visit returns false.
void visitDevices(const DIRECTORY_T &directory, const std::optional<DEVICE_KEY_T> &after,
                  const std::function<bool(const DEVICE_VIEW_T &)> &visit);

// Null for a device without labels, and for one that is not registered.
const Labels *labelsOf(const DIRECTORY_T &directory, const DEVICE_KEY_T &device);

// The devices that a name may mean: "DEVICE_NAME", or "PRODUCT_KEY:DEVICE_NAME".
std::vector<DEVICE_KEY_T> findDevices(const DIRECTORY_T &directory, std::string_view name);

// The one that it means, or std::runtime_error.
DEVICE_KEY_T findDevice(const DIRECTORY_T &directory, std::string_view name);

// Null while the device is not connected.
ChannelPtr findChannel(const DIRECTORY_T &directory, const DEVICE_KEY_T &device);

// The events of a device's channel. A handshake is accepted once its signature is on the disk as a
// used one, where there is a store; a replay is refused before anything else happens for it.
void checkDevice(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel, const MESSAGE_T &message,
                 HandshakeAnswer answered);
void deviceRefused(DIRECTORY_T &directory, const DEVICE_CHANNEL_T &channel,
                   const HANDSHAKE_RESULT_T &result);
void deviceConnected(DIRECTORY_T &directory, const ChannelPtr &channel, const std::string &remark);
void deviceGone(DIRECTORY_T &directory, const ChannelPtr &channel, const std::string &reason);

// For the handshakes from now on. A device whose entry is gone, or no longer has the secret that it
// has proved, is cut off; one with an old secret that is still valid stays. What is known of
// devices that have been taken out is forgotten. Returns the registry from before, whose end takes
// a while when it is large.
DeviceRegistry replaceRegistry(DIRECTORY_T &directory, DeviceRegistry registry);

// The records of devices that the registry does not have.
void forgetUnregistered(DIRECTORY_T &directory);

void closeDirectory(DIRECTORY_T &directory, const std::string &reason);

} // namespace backend
