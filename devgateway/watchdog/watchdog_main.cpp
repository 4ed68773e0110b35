// gateway_watchdog: receives the feeds of the gateway's threads on the private bus and reports a
// thread whose declared time ran out: a line "... has not been fed for ..." once for each lapse,
// and a line "... is fed again" when it is over.
//
// Bus      owns iot.gateway.watchdog, so that there is one and its start can be waited for. Feeds
//          are broadcast signals: interface iot.gateway.watchdog, member feed_dog, string module,
//          string thread, int32 seconds. A signal of another shape is a warning.
#include "common/log.h"
#include "devgateway/bus_library.h"
#include "devgateway/module.h"
#include "devgateway/watchdog/lapse_table.h"
#include "utility/handles.h"
#include "utility/monotonic_clock.h"

#include <cinttypes>
#include <cstdlib>

namespace {

constexpr char USAGE[] =
    "Usage: gateway_watchdog --bus ADDRESS\n"
    "Watches the feeds on the bus at ADDRESS and reports the threads that stop feeding.\n";
constexpr char WATCHDOG_NAME[] = "iot.gateway.watchdog";
constexpr char FEED_MATCH[] = "type='signal',interface='iot.gateway.watchdog',member='feed_dog'";

std::int64_t now_ms()
{
    return milliseconds_of(monotonic_now());
}

void take_feed(LAPSE_TABLE_T &table, const std::string &module, const std::string &thread,
               std::int32_t timeout_s)
{
    std::int64_t late_ms = 0;
    switch (feed_thread(table, module, thread, timeout_s, now_ms(), late_ms)) {
    case FEED_IN_TIME:
        break;
    case FEED_FIRST:
        RA_INFO("%s of %s is watched, its time is %d s", thread.c_str(), module.c_str(), timeout_s);
        break;
    case FEED_AFTER_LAPSE:
        RA_INFO("%s of %s is fed again, %" PRId64 " ms late", thread.c_str(), module.c_str(),
                late_ms);
        break;
    case FEED_SENSELESS:
        RA_WARN("senseless feed: thread '%s' of '%s', %d s", thread.c_str(), module.c_str(),
                timeout_s);
        break;
    case FEED_TABLE_FULL:
        RA_WARN("%s of %s is not watched: there are too many", thread.c_str(), module.c_str());
        break;
    }
}

void receive_feed(LAPSE_TABLE_T &table, sdbus::Message &feed)
{
    std::string module;
    std::string thread;
    std::int32_t timeout_s = 0;
    bool fits = false;
    try {
        feed >> module >> thread >> timeout_s;
        fits = static_cast<bool>(feed) && bus_library::is_at_end(feed); // nothing behind them
    } catch (const sdbus::Error &) {
        // Other types than a feed's.
    }
    if (fits) {
        take_feed(table, module, thread, timeout_s);
    } else {
        const std::string sender = feed.getSender();
        RA_WARN("a feed of another shape came from %s", sender.c_str());
    }
}

void watch(sdbus::IConnection &bus, LAPSE_TABLE_T &table, int stop_fd)
{
    while (wait_for_work(bus, stop_fd, time_to_next_lapse_ms(table, now_ms()))) {
        for (const LAPSE_T &lapse : take_lapses(table, now_ms())) {
            RA_ERROR("%s of %s has not been fed for %d s", lapse.thread.c_str(),
                     lapse.module.c_str(), lapse.timeout_s);
        }
    }
}

int serve_watchdog(const char *bus_address, int stop_fd)
{
    const char *step = "reaching the bus";
    try {
        LAPSE_TABLE_T table;
        const auto bus = connect_bus(bus_address);
        const auto feeds = bus_library::add_match(
            *bus, FEED_MATCH, [&table](auto &&feed) { receive_feed(table, feed); });
        step = "taking the name";
        bus->requestName(bus_library::ServiceName{WATCHDOG_NAME});
        RA_INFO("watching the feeds on %s", bus_address);
        step = "serving the bus";
        watch(*bus, table, stop_fd);
        return EXIT_SUCCESS;
    } catch (const std::exception &error) {
        RA_ERROR("%s failed: %s", step, error.what());
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char **argv)
{
    const char *bus = nullptr;
    const MODULE_OPTION_T options[] = {{"bus", &bus, OPTION_NEEDED}};
    if (const int status = read_module_options(argc, argv, USAGE, options); status >= 0) {
        return status;
    }
    const UniqueFd stop{start_module("gateway_watchdog")};
    return stop ? serve_watchdog(bus, stop.get()) : EXIT_FAILURE;
}
