#include "backend/directory/device_lines.h"

#include "backend/observe/audit.h"
#include "backend/observe/log.h"
#include "backend/observe/metrics.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace backend {

using Clock = std::chrono::steady_clock;
using Minutes = std::chrono::duration<double, std::ratio<60>>;

constexpr auto SWEEP_PERIOD = std::chrono::minutes(1);

static LINE_LIMIT_T g_left_out{"devices of which lines were left out", 20};

struct KIND_ROW_T {
    double burst;
    const char *event; // of the audit
};

constexpr auto KIND_ROWS = std::to_array<KIND_ROW_T>({
    {LINES_BURST, "device_connected"}, // and the others of its visits
    {LINES_BURST, "handshake_refused"},
    {1, "device_duplicate"}, // two that displace each other would write all the time
});

static void tellLeftOut(const DEVICE_KEY_T &device, const char *event, DEVICE_BUDGET_T &budget)
{
    if (budget.left_out == 0) return;
    auditRecord(AUDIT_EVENT::LEFT_OUT, {{"of", event},
                                        {"count", budget.left_out},
                                        {"product", device.product_key},
                                        {"device", device.device_name}});
    logLimited(g_left_out, LOG_LEVEL::WARNING, "device %s: %llu lines left out (%s)",
               device.device_name.c_str(), static_cast<unsigned long long>(budget.left_out), event);
    budget.left_out = 0;
}

static void giveBack(DEVICE_BUDGET_T &budget, Clock::time_point now)
{
    const Minutes waited = now - std::exchange(budget.counted_at, now);
    budget.used = std::max(0.0, budget.used - waited.count() * LINES_PER_MINUTE);
}

static void sweep(DEVICE_LINES_T &lines, Clock::time_point now)
{
    if (now - lines.swept_at < SWEEP_PERIOD) return;
    lines.swept_at = now;
    for (auto entry = lines.devices.begin(); entry != lines.devices.end();) {
        bool is_quiet = true;
        for (std::size_t i = 0; i < KIND_ROWS.size(); i++) {
            DEVICE_BUDGET_T &budget = entry->second[i];
            giveBack(budget, now);
            if (budget.used > 0)
                is_quiet = false;
            else
                tellLeftOut(entry->first, KIND_ROWS[i].event, budget);
        }
        entry = is_quiet ? lines.devices.erase(entry) : std::next(entry);
    }
}

bool lineIsAllowed(DEVICE_LINES_T &lines, const DEVICE_KEY_T &device, DEVICE_LINE kind)
{
    const auto now = Clock::now();
    sweep(lines, now);
    const auto at = static_cast<std::size_t>(kind);
    DEVICE_BUDGET_T &budget = lines.devices[device][at];
    giveBack(budget, now);
    if (budget.used + 1 > KIND_ROWS[at].burst) {
        budget.left_out++;
        addToMetric(METRIC::LOG_LINES_LEFT_OUT);
        addToMetric(METRIC::AUDIT_LINES_LEFT_OUT);
        return false;
    }
    budget.used += 1;
    tellLeftOut(device, KIND_ROWS[at].event, budget);
    return true;
}

void tellAllLeftOut(DEVICE_LINES_T &lines)
{
    for (auto &[device, budgets] : lines.devices)
        for (std::size_t i = 0; i < KIND_ROWS.size(); i++)
            tellLeftOut(device, KIND_ROWS[i].event, budgets[i]);
}

} // namespace backend
