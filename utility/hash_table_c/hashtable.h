// Intrusive string-keyed hash table with separate chaining; it never allocates and owns nothing.
//
// Owner    the caller owns the record, the bucket array and every element; the table only links
//          them.
// Order    bucket 0 upwards; within a bucket newest first.
// Asserts  a violated precondition is a programming error and ends the process with assert's own
//          report, in every build type.
// Threads  no lock: the caller serialises every access.
#pragma once

#include <cstdint>

struct hashtable_node_t {
    hashtable_node_t
        *next; // meaningless outside a table, except for HASHTABLE_POISON after a removal
};

constexpr std::uintptr_t HASHTABLE_POISON = 0x100;

using HASHTABLE_HASH_FUNC_T = std::uint32_t (*)(const void *key);
using HASHTABLE_EQUAL_FUNC_T = int (*)(const void *key, const hashtable_node_t *node);
using HASHTABLE_REPLACE_FUNC_T = void (*)(hashtable_node_t *replaced, hashtable_node_t *node,
                                          void *context);

struct hashtable_t {
    hashtable_node_t **bucket_array;
    HASHTABLE_HASH_FUNC_T hash;
    HASHTABLE_EQUAL_FUNC_T equal;
    HASHTABLE_REPLACE_FUNC_T replace; // may be null
    void *replace_context;
    std::uint32_t num_buckets; // > 0
    std::uint32_t size;
};

void hashtable_init(hashtable_t *hashtable, hashtable_node_t **bucket_array,
                    std::uint32_t num_buckets, HASHTABLE_HASH_FUNC_T hash,
                    HASHTABLE_EQUAL_FUNC_T equal, HASHTABLE_REPLACE_FUNC_T replace,
                    void *replace_context);
// The same for a bucket array that the caller has already cleared.
void hashtable_fast_init(hashtable_t *hashtable, hashtable_node_t **bucket_array,
                         std::uint32_t num_buckets, HASHTABLE_HASH_FUNC_T hash,
                         HASHTABLE_EQUAL_FUNC_T equal, HASHTABLE_REPLACE_FUNC_T replace,
                         void *replace_context);
hashtable_node_t **hashtable_bucket_array(const hashtable_t *hashtable);
std::uint32_t hashtable_num_buckets(const hashtable_t *hashtable);
std::uint32_t hashtable_size(const hashtable_t *hashtable);
int hashtable_empty(const hashtable_t *hashtable);
int hashtable_contains_key(const hashtable_t *hashtable, const void *key);
// A new element with an equal key takes the old one's place in its chain; the old one is poisoned,
// reported to replace and not freed. Otherwise the element becomes the head of its chain.
void hashtable_insert(hashtable_t *hashtable, const void *key, hashtable_node_t *node);
hashtable_node_t *hashtable_lookup_key(const hashtable_t *hashtable, const void *key);
// Unlinks the first element with the key, if there is one; it is poisoned and not freed.
void hashtable_remove_key(hashtable_t *hashtable, const void *key);
// Empties the table without touching the elements.
void hashtable_remove_all(hashtable_t *hashtable);
