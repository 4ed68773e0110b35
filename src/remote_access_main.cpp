// Start-up in a fixed order, and the main thread's loop: serve the bus, feed the watchdog, come
// back when the bus is lost.

#include "common/log.h"
#include "common/task_scheduler.h"
#include "src/bus_connection.h"
#include "src/config.h"
#include "src/default_route.h"
#include "src/mqtt_topics.h"
#include "src/process_end.h"
#include "src/product_identity.h"
#include "src/remote_access_proxy_thread.h"
#include "src/service_catalogue.h"
#include "src/singleton.h"
#include "src/traceBack.h"
#include "src/watchdog_feed.h"
#include "utility/bus_handles.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int BUS_WAIT_MS = 500;
constexpr useconds_t BUS_RETRY_US = 1000000;
constexpr int TASK_INTERVAL_S = 10;
constexpr int TASK_UNLIMITED = -1;
constexpr int EXIT_STATUS_OTHER_INSTANCE = 0;
constexpr int EXIT_STATUS_START_FAILED = -1;

constinit REMOTE_ACCESS_CONFIG_T g_config{};

// Whatever is opened first gets the lowest number: without this, a daemon started with a closed
// standard stream would write its messages into the PID file or into somebody's session.
void openStandardDescriptors()
{
    int fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);
    if (fd >= 0) ::close(fd);
}

int addRetriedTask(const char *name, TASK_FUNC_T function)
{
    return addOneTask(name, TASK_MODE_UNTIL_SUCCESS, 0, TASK_INTERVAL_S, TASK_UNLIMITED, function,
                      &g_config);
}

bool waitForBusTraffic(DBusConnection *conn)
{
    return conn != nullptr && dbus_connection_get_is_connected(conn) != 0 &&
           dbus_connection_read_write(conn, BUS_WAIT_MS) != 0;
}

void feedMainWatchdog(REMOTE_ACCESS_CONFIG_T *record, timespec *last_feed)
{
    feedWatchdog(record->bus_conn, MAIN_THREAD_NAME, WATCHDOG_FEED_PERIOD_S, last_feed);
}

void dispatchBusMessages(REMOTE_ACCESS_CONFIG_T *record, timespec *last_feed)
{
    while (const DBusMessagePtr message{dbus_connection_pop_message(record->bus_conn)}) {
        (void)localMessagesProc(record, message.get()); // what cannot be used is logged there
        feedMainWatchdog(record, last_feed); // one call may cost seconds, and many may wait
    }
}

// An installation of unknown edition describes itself on every pass until the cloud has
// acknowledged it; without a permanent cloud connection it has the bridge open one for that, and
// close it again.
void driveSelfDescription(REMOTE_ACCESS_CONFIG_T *record)
{
    if (record->edition != EDITION_UNKNOWN) return;
    const bool permanent = record->cloud_long_connection.load(std::memory_order_relaxed) != 0;
    const std::int32_t described = record->self_described.load(std::memory_order_relaxed);
    if (described == 0) {
        if (!permanent) (void)openCloudChannel(record); // the next pass retries all three
        (void)publishSelfDescribedToCloud(record);
    } else if (described == 1 && !permanent) {
        (void)closeCloudChannel(record);
    }
}

// The bridge's subscriptions belong to the registration that was lost: they are made anew.
void reconnectBus(REMOTE_ACCESS_CONFIG_T *record)
{
    if (registerModule2LocalBus(record) != 0) return; // the next pass retries
    if (addRetriedTask(SUBSCRIBE_TOPICS_TASK, subscribeCloudTopicTask) != 0)
        RA_ERROR_FOR("main", "add subscribe cloud topic task error!");
}

[[noreturn]] void serveBus(REMOTE_ACCESS_CONFIG_T *record)
{
    timespec last_feed{};
    for (;;) {
        const bool connected = waitForBusTraffic(record->bus_conn);
        if (connected) {
            dispatchBusMessages(record, &last_feed);
            driveSelfDescription(record);
        } else {
            reconnectBus(record);
        }
        feedMainWatchdog(record, &last_feed);
        if (!connected) ::usleep(BUS_RETRY_US);
    }
}

} // namespace

int main()
{
    openStandardDescriptors();
    log_init("remote_access_daemon", 1, 1, 2);
    if (ensureSingletonDaemon() != 0) return EXIT_STATUS_OTHER_INSTANCE;
    registerSignalHandlers();
    dbus_threads_init_default(); // the proxy thread sends on the main thread's connection
    if (initDelayWorker() != 0) {
        RA_ERROR("init delay task worker queue error!");
        terminateProcess(EXIT_STATUS_START_FAILED);
    }
    list_init(&g_config.service_list);
    (void)getBrimLockEdition(&g_config); // unknown when it cannot be read
    getBrimLockVersion(&g_config);
    // The catalogue takes this address for the host machine's services.
    if (g_config.edition == EDITION_PROFESSIONAL)
        (void)getDefaultGatewayAddr(g_config.host_machine_ip);
    if (registerModule2LocalBus(&g_config) != 0) RA_WARN("register to dbus error!");
    if (addRetriedTask(GET_CONFIG_TASK, getConfigParamsTask) != 0) {
        RA_ERROR("get config params failed, add task error!");
        terminateProcess(EXIT_STATUS_START_FAILED);
    }
    if (addRetriedTask(SUBSCRIBE_TOPICS_TASK, subscribeCloudTopicTask) != 0) {
        RA_ERROR("subscribe cloud topic failed, add task error!");
        terminateProcess(EXIT_STATUS_START_FAILED);
    }
    (void)getLocalServiceInfo(&g_config);
    if (createDetachedThread(&g_config.proxy_thread, remoteProxyThread, &g_config) != 0) {
        RA_ERROR("creat remoteProxyThread error!");
        terminateProcess(EXIT_STATUS_START_FAILED);
    }
    serveBus(&g_config);
}
