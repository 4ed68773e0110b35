#include "src/remote_access_session_mgr.h"

#include "common/log.h"
#include "utility/hash_table_c/hash_string.h"
#include "utility/list.h"
#include "utility/mutex_lock.h"
#include "utility/text.h"

#include <cstring>
#include <new>
#include <unistd.h>

namespace {

bool isReady(const SESSION_TABLE_T *table)
{
    return table->ready.load(std::memory_order_acquire) != 0;
}

SESSION_NODE_T *nodeOf(hashtable_node_t *link)
{
    return link != nullptr ? container_of(link, SESSION_NODE_T, hash_node) : nullptr;
}

int compareSessionId(const void *key, const hashtable_node_t *link)
{
    const SESSION_NODE_T *const node =
        container_of(const_cast<hashtable_node_t *>(link), SESSION_NODE_T, hash_node);
    return std::strcmp(static_cast<const char *>(key), node->session_id) == 0 ? 1 : 0;
}

SESSION_NODE_T *createSessionNode(int socket_fd, const char *session_id, SERVICE_INFO_T *service)
{
    auto *const node = new (std::nothrow) SESSION_NODE_T();
    if (node == nullptr) return nullptr;
    node->socket_fd = socket_fd;
    node->service = service;
    copy_text(node->session_id, session_id);
    return node;
}

void freeSessionNode(SESSION_NODE_T *node)
{
    if (node->socket_fd > 0) {
        ::close(node->socket_fd);
        node->socket_fd = 0;
    }
    delete node;
}

// Calls act on every node, which may remove it: its successor is read first.
template <class Action> void forEachNode(SESSION_TABLE_T *table, Action act)
{
    hashtable_node_t **const buckets = hashtable_bucket_array(&table->hashtable);
    for (std::uint32_t i = 0; i < hashtable_num_buckets(&table->hashtable); ++i) {
        hashtable_node_t *link = buckets[i];
        while (link != nullptr) {
            hashtable_node_t *const next = link->next;
            act(nodeOf(link));
            link = next;
        }
    }
}

} // namespace

int initSessionTable(SESSION_TABLE_T *table)
{
    if (table == nullptr) return -1;
    ::pthread_mutex_init(&table->mutex, nullptr);
    for (hashtable_node_t *&head : table->buckets)
        head = nullptr;
    hashtable_fast_init(&table->hashtable, table->buckets, SESSION_BUCKETS, hash_string,
                        compareSessionId, nullptr, nullptr);
    table->ready.store(1, std::memory_order_release);
    return 0;
}

int addOneSessionToTable(SESSION_TABLE_T *table, const char *session_id, int socket_fd,
                         SERVICE_INFO_T *service)
{
    SESSION_NODE_T *node = nullptr;
    {
        const MutexLock lock{table->mutex};
        node = createSessionNode(socket_fd, session_id, service);
        if (node != nullptr) hashtable_insert(&table->hashtable, session_id, &node->hash_node);
    }
    if (node == nullptr) {
        RA_WARN("session node create failed");
        return -1;
    }
    return 0;
}

SESSION_NODE_T *findOneSessionFromTable(SESSION_TABLE_T *table, const char *session_id)
{
    if (!isReady(table)) return nullptr;
    const MutexLock lock{table->mutex};
    return nodeOf(hashtable_lookup_key(&table->hashtable, session_id));
}

int releaseOneSessionFromTable(SESSION_TABLE_T *table, const char *session_id)
{
    SESSION_NODE_T *const node = findOneSessionFromTable(table, session_id);
    if (node == nullptr) {
        RA_INFO("sessionID:%s had release!", session_id);
        return 0;
    }
    const MutexLock lock{table->mutex};
    hashtable_remove_key(&table->hashtable, session_id);
    freeSessionNode(node);
    return 0;
}

int checkOneSessionInTable(SESSION_TABLE_T *table, const char *session_id)
{
    return findOneSessionFromTable(table, session_id) != nullptr ? 0 : -1;
}

std::uint32_t getSessionTableSize(const SESSION_TABLE_T *table)
{
    return hashtable_size(&table->hashtable);
}

void traverseSessionTable(SESSION_TABLE_T *table, SESSION_VISITOR_FUNC_T visitor, void *argument)
{
    if (!isReady(table) || visitor == nullptr) return;
    const MutexLock lock{table->mutex};
    forEachNode(table, [&](SESSION_NODE_T *node) { (void)visitor(node, argument); });
}

int releaseAllSessionsFromTable(SESSION_TABLE_T *table)
{
    if (!isReady(table)) return 0;
    const MutexLock lock{table->mutex};
    forEachNode(table, [table](SESSION_NODE_T *node) {
        hashtable_remove_key(&table->hashtable, node->session_id);
        freeSessionNode(node);
    });
    return 0;
}
