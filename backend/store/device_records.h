// What is known of each device beyond its connection: when it was last there, from where, and why
// it left. In memory for the io thread, and in the store's table `device` where there is a store:
// written late and only in its newest state, so that a device that flaps costs one row in
// LATE_WRITE_PERIOD_S.
// Threads  the io thread.
// Limits   one record for each device that was once accepted; forgetDevice takes one away.
#pragma once

#include "backend/device_key.h"
#include "backend/store/store.h"

#include <cstdint>
#include <map>
#include <string>

namespace backend {

// Times are milliseconds since the epoch; 0: never.
struct DEVICE_RECORD_T {
    std::int64_t connected_since_ms = 0; // 0 while it is away
    std::int64_t last_seen_ms = 0;       // when it came or left last; while it is there: is older
    std::string last_reason;             // why it left; empty before it has
    std::string last_address;            // without the port
    std::int64_t replaced_ms = 0;        // a newer connection took its place
    std::int64_t duplicate_ms = 0;       // two devices seemed to use this name at once
};

struct DEVICE_RECORDS_T {
    STORE_T *store = nullptr; // borrowed; null: kept in memory only
    std::map<DEVICE_KEY_T, DEVICE_RECORD_T> records;
};

// Devices that were connected when the back end was killed are away since about then.
// Throws std::runtime_error.
DEVICE_RECORDS_T loadDeviceRecords(STORE_T *store);

void noteDeviceCame(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                    const std::string &address, std::int64_t now_ms);
void noteDeviceLeft(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                    const std::string &reason, std::int64_t now_ms);
void noteDeviceReplaced(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device, std::int64_t now_ms);
void noteDeviceDuplicate(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                         std::int64_t now_ms);
void forgetDevice(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device);

// Null for a device that has never been there.
const DEVICE_RECORD_T *findDeviceRecord(const DEVICE_RECORDS_T &records,
                                        const DEVICE_KEY_T &device);

} // namespace backend
