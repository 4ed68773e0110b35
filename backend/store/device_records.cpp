#include "backend/store/device_records.h"

#include <algorithm>

namespace backend {

static constexpr char LOAD_SQL[] = "SELECT product, name, connected_since_ms, last_seen_ms,"
                                   " last_reason, last_address, replaced_ms, duplicate_ms"
                                   " FROM device";
static constexpr char ALIVE_SQL[] = "SELECT value FROM meta WHERE name = 'alive_ms'";
static constexpr char SAVE_SQL[] = "INSERT OR REPLACE INTO device VALUES (?, ?, ?, ?, ?, ?, ?, ?)";
static constexpr char FORGET_SQL[] = "DELETE FROM device WHERE product = ? AND name = ?";

static void writeLate(const DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                      STORE_WRITE_T write)
{
    if (records.store == nullptr) return;
    std::string key = "device " + std::to_string(device.product_key.size()) + " " +
                      device.product_key + device.device_name;
    writeStoreLate(*records.store, std::move(key), std::move(write));
}

static void save(const DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                 const DEVICE_RECORD_T &record)
{
    writeLate(
        records, device,
        {SAVE_SQL,
         {device.product_key, device.device_name, record.connected_since_ms, record.last_seen_ms,
          record.last_reason, record.last_address, record.replaced_ms, record.duplicate_ms}});
}

DEVICE_RECORDS_T loadDeviceRecords(STORE_T *store)
{
    DEVICE_RECORDS_T records{store, {}};
    if (store == nullptr) return records;
    const auto alive = readStore(*store, ALIVE_SQL);
    const std::int64_t alive_ms = alive.empty() ? 0 : std::get<std::int64_t>(alive[0][0]);
    for (const STORE_ROW_T &row : readStore(*store, LOAD_SQL)) {
        const auto text = [&row](std::size_t i) { return std::get<std::string>(row[i]); };
        const auto number = [&row](std::size_t i) { return std::get<std::int64_t>(row[i]); };
        const DEVICE_KEY_T device{text(0), text(1)};
        DEVICE_RECORD_T &record = records.records[device];
        record = {number(2), number(3), text(4), text(5), number(6), number(7)};
        if (record.connected_since_ms == 0) continue;
        record.connected_since_ms = 0;
        record.last_seen_ms = std::max(record.last_seen_ms, alive_ms);
        record.last_reason = "the back end was interrupted";
        save(records, device, record);
    }
    return records;
}

void noteDeviceCame(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                    const std::string &address, std::int64_t now_ms)
{
    DEVICE_RECORD_T &record = records.records[device];
    record.connected_since_ms = now_ms;
    record.last_seen_ms = now_ms;
    record.last_address = address;
    save(records, device, record);
}

void noteDeviceLeft(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device,
                    const std::string &reason, std::int64_t now_ms)
{
    DEVICE_RECORD_T &record = records.records[device];
    record.connected_since_ms = 0;
    record.last_seen_ms = now_ms;
    record.last_reason = reason;
    save(records, device, record);
}

void noteDeviceReplaced(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device, std::int64_t now_ms)
{
    DEVICE_RECORD_T &record = records.records[device];
    record.replaced_ms = now_ms;
    save(records, device, record);
}

void noteDeviceDuplicate(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device, std::int64_t now_ms)
{
    DEVICE_RECORD_T &record = records.records[device];
    record.duplicate_ms = now_ms;
    save(records, device, record);
}

void forgetDevice(DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device)
{
    if (records.records.erase(device) > 0)
        writeLate(records, device, {FORGET_SQL, {device.product_key, device.device_name}});
}

const DEVICE_RECORD_T *findDeviceRecord(const DEVICE_RECORDS_T &records, const DEVICE_KEY_T &device)
{
    const auto found = records.records.find(device);
    return found == records.records.end() ? nullptr : &found->second;
}

} // namespace backend
