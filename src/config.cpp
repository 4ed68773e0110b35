#include "src/config.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "platform/config_manager/config_manager.h"
#include "src/config_keys.h"
#include "src/default_cert.h"
#include "utility/handles.h"
#include "utility/mutex_lock.h"
#include "utility/text.h"

#include <cstring>
#include <pthread.h>

namespace {

// Operations whose lines are written by helpers here.
constexpr char READ_CONFIG[] = "getConfigParams";

constexpr int BUS_TIMEOUT_MS = 1000;
constexpr int SUBSCRIBE_FLAG = 1;

constexpr std::size_t KEEP_IDENTITY = 36;
constexpr std::size_t KEEP_SECRET = 68;
constexpr std::size_t KEEP_PATH = 68;
constexpr std::size_t KEEP_HOST = 135;
constexpr std::size_t KEEP_PORT = 15;
constexpr std::size_t KEEP_NUMBER = 12;
constexpr std::size_t KEEP_LONG_CONNECTION = 15;

static_assert(sizeof DEFAULT_HOST - 1 <= KEEP_HOST, "RA_DEFAULT_CLOUD_HOST is too long");

// Orders the worker's rewriting of the topics with the main thread's reading. Never held across a
// bus call.
pthread_mutex_t g_topic_mutex = PTHREAD_MUTEX_INITIALIZER;

// A value of the configuration manager, or the result code that says why there is none.
struct CONFIG_VALUE_T {
    HeapText text;
    int result;
    explicit operator bool() const noexcept
    {
        return text != nullptr;
    }
};

CONFIG_VALUE_T readValue(DBusConnection *conn, const char *key)
{
    char *text = nullptr;
    const int result = get_config(conn, key, &text, BUS_TIMEOUT_MS);
    HeapText owned{text};
    if (result != CONFIG_OK) owned.reset();
    return {std::move(owned), result};
}

void logValue(const char *key, const char *value)
{
    RA_INFO_FOR(READ_CONFIG, "%s : %s", key, value);
}

// Reads and logs a text and stores what the field keeps of it. Returns the manager's result.
template <std::size_t N>
int readText(DBusConnection *conn, const char *key, char (&field)[N], std::size_t keep)
{
    copy_text(field, "");
    const CONFIG_VALUE_T value = readValue(conn, key);
    if (!value) return value.result;
    logValue(key, value.text.get());
    copy_text(field, value.text.get(), keep);
    return CONFIG_OK;
}

// The same for an optional text; log_missing(result) logs that there is none.
template <std::size_t N, class LogMissing>
void readTextOr(const char *fallback, DBusConnection *conn, const char *key, char (&field)[N],
                std::size_t keep, LogMissing log_missing)
{
    const int result = readText(conn, key, field, keep);
    if (result == CONFIG_OK) return;
    log_missing(result);
    logValue(key, fallback);
    copy_text(field, fallback);
}

// An optional number.
template <class LogMissing>
std::int32_t readNumberOr(std::int32_t fallback, DBusConnection *conn, const char *key,
                          LogMissing log_missing)
{
    const CONFIG_VALUE_T value = readValue(conn, key);
    if (!value) {
        log_missing(value.result);
        RA_INFO_FOR(READ_CONFIG, "%s : %d", key, fallback);
        return fallback;
    }
    logValue(key, value.text.get());
    return parse_int32(std::string_view{value.text.get()}.substr(0, KEEP_NUMBER));
}

void buildCloudTopics(REMOTE_ACCESS_CONFIG_T *config)
{
    const char *const pk = config->product_key;
    const char *const dn = config->device_name;
    const MutexLock lock{g_topic_mutex};
    format_text(config->topic_debug_switch, "/sys/%s/%s/edge/debug/switch", pk, dn);
    format_text(config->topic_ability_post_reply, "/sys/%s/%s/edge/ability/post_reply", pk, dn);
    format_text(config->topic_ability_post, "/sys/%s/%s/edge/ability/post", pk, dn);
    format_text(config->topic_ability_get, "/sys/%s/%s/edge/ability/get", pk, dn);
}

int readSecret(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    copy_text(config->device_secret, "");
    const CONFIG_VALUE_T value = readValue(conn, KEY_DEVICE_SECRET);
    if (!value) {
        RA_WARN_FOR(READ_CONFIG, "can not get DS, result:%d", value.result);
        return -1;
    }
    RA_INFO_FOR(READ_CONFIG, "%s : %.5s***************", KEY_DEVICE_SECRET, value.text.get());
    copy_text(config->device_secret, value.text.get(), KEEP_SECRET);
    return 0;
}

// The identity is mandatory: without it the back end could not identify the device.
int readIdentity(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    int result = readText(conn, KEY_PRODUCT_KEY, config->product_key, KEEP_IDENTITY);
    if (result != CONFIG_OK) {
        RA_WARN_FOR(READ_CONFIG, "can not get PK, result:%d", result);
        return -1;
    }
    result = readText(conn, KEY_DEVICE_NAME, config->device_name, KEEP_IDENTITY);
    if (result != CONFIG_OK) {
        RA_WARN_FOR(READ_CONFIG, "can not get DN, result:%d", result);
        return -1;
    }
    buildCloudTopics(config);
    return readSecret(config, conn);
}

int readCertPath(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    const int result = readText(conn, KEY_CERT_PATH, config->cert_path, KEEP_PATH);
    if (result == CONFIG_OK) return 0;
    RA_INFO_FOR(READ_CONFIG, "can not get cert path,using default value, result:%d", result);
    if (writeDefaultCert(DEFAULT_CERT_PATH) != 0) {
        RA_WARN_FOR(READ_CONFIG, "can not write root cert path");
        return -1;
    }
    logValue(KEY_CERT_PATH, DEFAULT_CERT_PATH);
    copy_text(config->cert_path, DEFAULT_CERT_PATH);
    return 0;
}

void readEndpoint(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    readTextOr(DEFAULT_HOST, conn, KEY_CLOUD_HOST, config->cloud_host, KEEP_HOST, [](int result) {
        RA_INFO_FOR(READ_CONFIG, "can not get host, using default value, result:%d", result);
    });
    readTextOr(DEFAULT_PORT, conn, KEY_CLOUD_PORT, config->cloud_port, KEEP_PORT, [](int result) {
        RA_INFO_FOR(READ_CONFIG, "can not get port, using default value, result:%d", result);
    });
}

void readChannelTunables(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    config->tls_type = readNumberOr(DEFAULT_TLS_TYPE, conn, KEY_TLS_TYPE, [](int result) {
        RA_INFO_FOR(READ_CONFIG, "can not get tls type,using default value, result:%d", result);
    });
    config->debug_switch =
        readNumberOr(DEFAULT_DEBUG_SWITCH, conn, KEY_DEBUG_SWITCH, [](int result) {
            RA_INFO_FOR(READ_CONFIG, "can not get debug switch,using default value, result:%d",
                        result);
        });
    config->trans_timeout =
        readNumberOr(DEFAULT_TRANS_TIMEOUT_MS, conn, KEY_TRANS_TIMEOUT, [](int result) {
            RA_INFO_FOR(READ_CONFIG, "can not get trans timeout,using default value, result:%d",
                        result);
        });
}

// With a permanent cloud connection remote access starts closed and is opened on command; without
// one it starts open.
void readLongConnection(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    std::int32_t flag = DEFAULT_LONG_CONNECTION;
    const CONFIG_VALUE_T value = readValue(conn, KEY_LONG_CONNECTION);
    if (value) {
        flag = parse_int32(std::string_view{value.text.get()}.substr(0, KEEP_LONG_CONNECTION));
        RA_INFO_FOR(READ_CONFIG, "cloud long connection:%d", flag);
    } else {
        RA_INFO_FOR(READ_CONFIG, "can not get cloud long connection flag !");
    }
    config->cloud_long_connection.store(flag, std::memory_order_relaxed);
    config->remote_access_switch.store(flag != 0 ? 0 : 1, std::memory_order_relaxed);
}

void readKeepaliveTunables(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    config->tcp_keepalive_period =
        readNumberOr(DEFAULT_TCP_KEEPALIVE_S, conn, KEY_TCP_KEEPALIVE, [](int result) {
            RA_INFO_FOR(READ_CONFIG, "can not get tcp keepalive,using default value, result:%d",
                        result);
        });
    config->ping_period =
        readNumberOr(DEFAULT_PING_PERIOD_S, conn, KEY_PING_PERIOD, [](int result) {
            RA_INFO_FOR(READ_CONFIG, "can not get ping period,using default value, result:%d",
                        result);
        });
}

int subscribeChanges(DBusConnection *conn)
{
    if (subscribe_config(conn, BUS_NAME, KEY_DEBUG_SWITCH, SUBSCRIBE_FLAG, BUS_TIMEOUT_MS) != 0) {
        RA_WARN_FOR(READ_CONFIG, "subscribe module config debug log switch error!");
        return -1;
    }
    if (subscribe_config(conn, BUS_NAME, KEY_TRANS_TIMEOUT, SUBSCRIBE_FLAG, BUS_TIMEOUT_MS) != 0) {
        RA_WARN_FOR(READ_CONFIG, "subscribe module config transtimeout error!");
        return -1;
    }
    return 0;
}

} // namespace

int getConfigParams(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn)
{
    RA_INFO("getConfigParams start !");
    if (conn == nullptr) {
        RA_WARN("dbus connection is NULL");
        return -1;
    }
    if (readIdentity(config, conn) != 0) return -1;
    if (readCertPath(config, conn) != 0) return -1;
    readEndpoint(config, conn);
    readChannelTunables(config, conn);
    readLongConnection(config, conn);
    readKeepaliveTunables(config, conn);
    return subscribeChanges(conn);
}

int getConfigParamsTask(TASK_NODE_T * /*task*/, void *argument, DBusConnection *conn)
{
    return getConfigParams(static_cast<REMOTE_ACCESS_CONFIG_T *>(argument), conn);
}

void copyCloudTopic(const char (&topic)[TOPIC_SIZE], char (&out)[TOPIC_SIZE])
{
    const MutexLock lock{g_topic_mutex};
    std::memcpy(out, topic, TOPIC_SIZE);
}
