#include "backend/observe/metrics.h"

#include <array>
#include <atomic>

namespace backend {

struct METRIC_ROW_T {
    METRIC metric;
    const char *name;
    const char *help;
    bool is_counter;
};

constexpr auto METRIC_ROWS = std::to_array<METRIC_ROW_T>({
    {METRIC::HANDSHAKES_REFUSED, "handshakes_refused_total",
     "Handshakes of devices that were refused", true},
    {METRIC::CONNECTIONS_TURNED_AWAY, "connections_turned_away_total",
     "Connections closed before their handshake, for others or because they fell silent", true},
    {METRIC::DUPLICATES, "duplicates_total",
     "Connections of a device that was connected already a short time before", true},
    {METRIC::DEVICES_CONNECTED, "devices_connected", "Devices that are connected", false},
    {METRIC::SESSIONS_BEGUN, "sessions_begun_total", "Sessions that have begun", true},
    {METRIC::SESSIONS_REFUSED, "sessions_refused_total", "Sessions that were refused", true},
    {METRIC::LOG_LINES_LEFT_OUT, "log_lines_left_out_total",
     "Lines that the log left out, by a limit or for want of room", true},
    {METRIC::AUDIT_LINES, "audit_lines_total", "Lines that the audit has recorded", true},
    {METRIC::AUDIT_LINES_LEFT_OUT, "audit_lines_left_out_total",
     "Lines that the audit counted instead of recording them", true},
    {METRIC::AUDIT_QUEUE_BYTES, "audit_queue_bytes", "Bytes that wait for the audit's file", false},
    {METRIC::AUDIT_FAILING, "audit_failing",
     "1 while the audit cannot be written and new sessions are refused", false},
});

consteval bool rowsAreInOrder()
{
    for (std::size_t i = 0; i < METRIC_ROWS.size(); i++)
        if (METRIC_ROWS[i].metric != METRIC(i)) return false;
    return METRIC_ROWS.size() == std::size_t(METRIC::AUDIT_FAILING) + 1;
}
static_assert(rowsAreInOrder());

static constinit std::array<std::atomic<std::uint64_t>, METRIC_ROWS.size()> g_values{};

void addToMetric(METRIC metric, std::uint64_t count)
{
    g_values[std::size_t(metric)].fetch_add(count, std::memory_order_relaxed);
}

void setMetric(METRIC metric, std::uint64_t value)
{
    g_values[std::size_t(metric)].store(value, std::memory_order_relaxed);
}

std::size_t metricCount()
{
    return METRIC_ROWS.size();
}

METRIC_VALUE_T readMetric(std::size_t index)
{
    const METRIC_ROW_T &row = METRIC_ROWS[index];
    return {row.name, row.help, row.is_counter, g_values[index].load(std::memory_order_relaxed)};
}

} // namespace backend
