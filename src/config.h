// The daemon's one context and configuration record, and the reading of the configuration.
//
// Owner    one static instance, handed by address to every thread. Zero until it is filled.
// Threads  identity, endpoint and tunables: written by the task worker; the proxy thread reads them
//          only after "get_config_params_task" has succeeded (the task list's lock orders the two).
//          Edition, version, host address and catalogue: written by the main thread before the
//          other threads that read them start.
//          Command words: atomics; no value needs another's, except that remote_access_switch is
//          stored before switch_changed is set (release) and read after the mark was taken.
//          Topics: written by the task worker while the main thread may read: copyCloudTopic only.
//          bus_conn: replaced by the main thread alone; others borrow it
//          (bus_connection.h).
#pragma once

#include "utility/list.h"
#include "utility/thread_handle.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

struct DBusConnection;
struct TASK_NODE_T;

enum EDITION : std::int32_t {
    EDITION_UNKNOWN = 0,
    EDITION_STANDARD = 1,
    EDITION_PROFESSIONAL = 2,
};

constexpr std::size_t TOPIC_SIZE = 128;

struct REMOTE_ACCESS_CONFIG_T {
    DBusConnection *bus_conn; // owned
    THREAD_HANDLE_T proxy_thread;
    char product_key[40];
    char device_name[40];
    char device_secret[72]; // never logged beyond its first five characters
    char cert_path[72];     // CA certificate file
    char cloud_host[136];
    char cloud_port[16]; // decimal text
    char host_machine_ip[24];
    std::int32_t tls_type; // 0 = plain, else TLS
    std::atomic<std::int32_t> debug_switch;
    std::atomic<std::int32_t> trans_timeout; // ms
    std::int32_t tcp_keepalive_period;       // s
    std::int32_t ping_period;                // s
    std::atomic<std::int32_t> remote_access_switch;
    std::atomic<std::int32_t> switch_changed;
    std::uint32_t service_count;
    LIST_LINK_T service_list; // SERVICE_INFO_T, never removed
    char topic_debug_switch[TOPIC_SIZE];
    char topic_ability_post[TOPIC_SIZE];
    char topic_ability_post_reply[TOPIC_SIZE];
    char topic_ability_get[TOPIC_SIZE];
    std::int32_t edition; // EDITION
    char version[40];     // raw bytes of the file
    std::atomic<std::int32_t> self_described;
    std::atomic<std::int32_t> cloud_long_connection;
};

static_assert(std::atomic<std::int32_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<std::int32_t>) == sizeof(std::int32_t));

constexpr char GET_CONFIG_TASK[] = "get_config_params_task";

// Reads every key, with a default for each optional one, and subscribes to the two that may change
// at run time. 0 when all is in place; -1 otherwise, and the next call starts from the first key
// again. Blocks for at most 1 s a key.
int getConfigParams(REMOTE_ACCESS_CONFIG_T *config, DBusConnection *conn);

// The same as a task; the argument is the record.
int getConfigParamsTask(TASK_NODE_T *task, void *argument, DBusConnection *conn);

// Copies one of the record's four topic fields, whole, also while it is being rewritten.
void copyCloudTopic(const char (&topic)[TOPIC_SIZE], char (&out)[TOPIC_SIZE]);
