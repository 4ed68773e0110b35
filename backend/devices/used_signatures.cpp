#include "backend/devices/used_signatures.h"

#include "backend/devices/handshake.h"

#include <algorithm>
#include <cstdlib>

namespace backend {

constexpr std::int64_t SWEEP_PERIOD_MS = 60'000;

static constexpr char LOAD_SQL[] =
    "SELECT product, device, signed_second, first_used_ms, address FROM signature";
static constexpr char MARK_SQL[] = "INSERT OR IGNORE INTO signature VALUES (?, ?, ?, ?, ?)";
static constexpr char EXPIRE_SQL[] = "DELETE FROM signature WHERE signed_second < ?";

// The oldest second that a handshake may still have signed: the header's second may be one later.
static std::int64_t oldestSecond(std::int64_t now_ms)
{
    return now_ms / 1000 - CLOCK_TOLERANCE_S - 1;
}

USED_SIGNATURES_T loadUsedSignatures(STORE_T *store, std::int64_t now_ms)
{
    USED_SIGNATURES_T ledger{store, {}, now_ms};
    if (store == nullptr) return ledger;
    for (STORE_ROW_T &row : readStore(*store, LOAD_SQL)) {
        const auto signed_second = std::get<std::int64_t>(row[2]);
        if (signed_second < oldestSecond(now_ms)) continue;
        const DEVICE_KEY_T device{std::get<std::string>(row[0]), std::get<std::string>(row[1])};
        ledger.used[device].push_back(
            {signed_second, std::get<std::int64_t>(row[3]), std::get<std::string>(row[4])});
    }
    return ledger;
}

static void expire(std::vector<USED_SIGNATURE_T> &used, std::int64_t now_ms)
{
    std::erase_if(used, [now_ms](const USED_SIGNATURE_T &entry) {
        return entry.signed_second < oldestSecond(now_ms);
    });
}

static void sweep(USED_SIGNATURES_T &ledger, std::int64_t now_ms)
{
    if (std::abs(now_ms - ledger.swept_ms) < SWEEP_PERIOD_MS) return;
    ledger.swept_ms = now_ms;
    for (auto &[device, used] : ledger.used)
        expire(used, now_ms);
    std::erase_if(ledger.used, [](const auto &entry) { return entry.second.empty(); });
    if (ledger.store != nullptr)
        writeStoreLate(*ledger.store, "signature", {EXPIRE_SQL, {oldestSecond(now_ms)}});
}

bool markSignature(USED_SIGNATURES_T &ledger, const DEVICE_KEY_T &device,
                   std::int64_t signed_second, const std::string &address, std::int64_t now_ms)
{
    sweep(ledger, now_ms);
    std::vector<USED_SIGNATURE_T> &used = ledger.used[device];
    const auto found = std::find_if(used.begin(), used.end(), [&](const USED_SIGNATURE_T &entry) {
        return entry.signed_second == signed_second;
    });
    if (found == used.end()) {
        expire(used, now_ms);
        used.push_back({signed_second, now_ms, address});
        return true;
    }
    return found->address == address &&
           std::abs(now_ms - found->first_used_ms) <= SIGNATURE_REUSE_MS;
}

void claimSignature(USED_SIGNATURES_T &ledger, const DEVICE_KEY_T &device,
                    std::int64_t signed_second, const std::string &address, std::int64_t now_ms,
                    SignatureCallback answered)
{
    if (!markSignature(ledger, device, signed_second, address, now_ms))
        return answered(SIGNATURE_USE::REPLAYED);
    if (ledger.store == nullptr) return answered(SIGNATURE_USE::ACCEPTED);
    // Also for the same signature once more: its first use may still be on the way to the disk.
    writeStore(*ledger.store,
               {MARK_SQL, {device.product_key, device.device_name, signed_second, now_ms, address}},
               [answered = std::move(answered)](bool is_durable) {
                   answered(is_durable ? SIGNATURE_USE::ACCEPTED : SIGNATURE_USE::UNRECORDED);
               });
}

} // namespace backend
