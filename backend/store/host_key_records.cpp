#include "backend/store/host_key_records.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

static constexpr char LOAD_SQL[] =
    "SELECT product, device, service, type, key, seen_ms, who FROM host_key ORDER BY type";
// All keys of a service in one statement: as a whole or not at all.
static constexpr char ADD_SQL[] =
    "INSERT OR REPLACE INTO host_key SELECT ?, ?, ?, json_extract(value, '$[0]'),"
    " json_extract(value, '$[1]'), ?, ? FROM json_each(?)";
static constexpr char FORGET_SQL[] =
    "DELETE FROM host_key WHERE product = ? AND device = ? AND service = ?";

HOST_KEY_RECORDS_T loadHostKeys(STORE_T *store)
{
    HOST_KEY_RECORDS_T keys{store, {}};
    if (store == nullptr) return keys;
    for (const STORE_ROW_T &row : readStore(*store, LOAD_SQL)) {
        const auto text = [&row](std::size_t i) { return std::get<std::string>(row[i]); };
        keys.records[{text(0), text(1), text(2)}].push_back(
            {text(3), text(4), std::get<std::int64_t>(row[5]), text(6)});
    }
    return keys;
}

const std::vector<HOST_KEY_T> *findHostKeys(const HOST_KEY_RECORDS_T &keys,
                                            const HOST_KEY_PLACE_T &place)
{
    const auto found = keys.records.find(place);
    return found == keys.records.end() ? nullptr : &found->second;
}

bool hasMostServices(const HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place)
{
    std::size_t count = 0;
    for (auto next = keys.records.lower_bound({place.product, place.device, ""});
         next != keys.records.end() && next->first.product == place.product &&
         next->first.device == place.device;
         ++next)
        count++;
    return count >= HOST_KEY_SERVICES_MAX;
}

void addHostKeys(HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place,
                 std::vector<HOST_KEY_T> shown, StoreCallback answered)
{
    json list = json::array();
    for (const HOST_KEY_T &key : shown)
        list.push_back({key.type, key.key});
    STORE_WRITE_T write{ADD_SQL,
                        {place.product, place.device, place.service, shown.front().seen_ms,
                         shown.front().who, list.dump()}};
    std::sort(shown.begin(), shown.end(),
              [](const auto &left, const auto &right) { return left.type < right.type; });
    keys.records[place] = std::move(shown);
    writeStore(*keys.store, std::move(write),
               [&keys, place, answered = std::move(answered)](bool is_durable) {
                   if (!is_durable) keys.records.erase(place);
                   answered(is_durable);
               });
}

void forgetHostKeys(HOST_KEY_RECORDS_T &keys, const HOST_KEY_PLACE_T &place, StoreCallback answered)
{
    keys.records.erase(place);
    writeStore(*keys.store, {FORGET_SQL, {place.product, place.device, place.service}},
               std::move(answered));
}

} // namespace backend
