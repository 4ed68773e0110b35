// Figures of the running back end: one table of named numbers that every unit adds to.
// Names    as monitoring systems expect them: lower case, the unit in the name, and "_total" at
//          the end of one that only grows.
// Threads  safe from every thread; a figure is one relaxed atomic, so two of them may be read at
//          slightly different times.
// Failure  none.
#pragma once

#include <cstddef>
#include <cstdint>

namespace backend {

// A new figure is a row here and one in metrics.cpp.
enum class METRIC : std::size_t {
    HANDSHAKES_REFUSED,
    CONNECTIONS_TURNED_AWAY,
    DUPLICATES,
    DEVICES_CONNECTED,
    SESSIONS_BEGUN,
    SESSIONS_REFUSED,
    LOG_LINES_LEFT_OUT,
    AUDIT_LINES,
    AUDIT_LINES_LEFT_OUT,
    AUDIT_QUEUE_BYTES,
    AUDIT_FAILING,
};

struct METRIC_VALUE_T {
    const char *name;
    const char *help;
    bool is_counter; // only grows; else a gauge
    std::uint64_t value;
};

void addToMetric(METRIC metric, std::uint64_t count = 1);
void setMetric(METRIC metric, std::uint64_t value); // of a gauge

std::size_t metricCount();
METRIC_VALUE_T readMetric(std::size_t index); // below metricCount()

} // namespace backend
