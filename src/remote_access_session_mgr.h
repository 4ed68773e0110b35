// Session table: the sessions open on the cloud channel, keyed by session identifier.
//
// Owns     the nodes and their local sockets; removing a node closes its socket (when it is greater
//          than 0).
// Threads  the proxy thread adds, finds and releases; the main thread only checks and traverses.
//          Every call but getSessionTableSize (proxy thread only) takes the table's lock. Walk
//          callbacks run under it and must not call back in. A found node stays valid on the proxy
//          thread until that thread releases it. Until initSessionTable the table reads as empty,
//          for an early caller.
// Limits   an identifier keeps SESSION_ID_SIZE - 1 characters; the bound of MAX_SESSIONS is the
//          caller's.
// Order    of a walk: bucket 0 upwards, newest first within a bucket.
// Failure  0 / -1; failures are logged here.
#pragma once

#include "src/cloud_protocol.h"
#include "utility/hash_table_c/hashtable.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <type_traits>

struct SERVICE_INFO_T;

constexpr std::uint32_t SESSION_BUCKETS = 32;

struct SESSION_NODE_T {
    std::int32_t socket_fd; // owned when > 0
    char session_id[SESSION_ID_SIZE];
    hashtable_node_t hash_node;
    SERVICE_INFO_T *service; // borrowed; null when the request matched no catalogue entry
};
static_assert(std::is_standard_layout_v<SESSION_NODE_T>);

struct SESSION_TABLE_T {
    pthread_mutex_t mutex;
    hashtable_t hashtable;
    hashtable_node_t *buckets[SESSION_BUCKETS];
    std::atomic<std::int32_t> ready; // 1 once initialised
};

using SESSION_VISITOR_FUNC_T = int (*)(SESSION_NODE_T *session, void *argument);

[[nodiscard]] int initSessionTable(SESSION_TABLE_T *table);
// Takes the socket on success only.
[[nodiscard]] int addOneSessionToTable(SESSION_TABLE_T *table, const char *session_id,
                                       int socket_fd, SERVICE_INFO_T *service);
// 0 always: releasing an unknown session is only logged.
int releaseOneSessionFromTable(SESSION_TABLE_T *table, const char *session_id);
SESSION_NODE_T *findOneSessionFromTable(SESSION_TABLE_T *table, const char *session_id);
// 0 when present, -1 when not.
int checkOneSessionInTable(SESSION_TABLE_T *table, const char *session_id);
std::uint32_t getSessionTableSize(const SESSION_TABLE_T *table);
void traverseSessionTable(SESSION_TABLE_T *table, SESSION_VISITOR_FUNC_T visitor, void *argument);
int releaseAllSessionsFromTable(SESSION_TABLE_T *table);
