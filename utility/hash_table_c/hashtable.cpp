#include "utility/hash_table_c/hashtable.h"

#include <algorithm>
#include <type_traits>

#undef NDEBUG // the checks are part of the contract in every build type
#include <cassert>

static_assert(std::is_standard_layout_v<hashtable_t>);

namespace {

hashtable_node_t **bucket_of(const hashtable_t *hashtable, const void *key)
{
    return &hashtable->bucket_array[hashtable->hash(key) % hashtable->num_buckets];
}

// The word that holds the link to the first element with the key, or the null at its chain's end.
hashtable_node_t **find_link(const hashtable_t *hashtable, const void *key,
                             hashtable_node_t **bucket)
{
    hashtable_node_t **link = bucket;
    while (*link != nullptr && hashtable->equal(key, *link) == 0)
        link = &(*link)->next;
    return link;
}

void poison(hashtable_node_t *node)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address that is never mapped, and never read
    node->next = reinterpret_cast<hashtable_node_t *>(HASHTABLE_POISON);
}

} // namespace

void hashtable_init(hashtable_t *hashtable, hashtable_node_t **bucket_array,
                    std::uint32_t num_buckets, HASHTABLE_HASH_FUNC_T hash,
                    HASHTABLE_EQUAL_FUNC_T equal, HASHTABLE_REPLACE_FUNC_T replace,
                    void *replace_context)
{
    assert(hashtable && bucket_array && num_buckets > 0 && hash && equal);
    std::fill_n(bucket_array, num_buckets, nullptr);
    hashtable_fast_init(hashtable, bucket_array, num_buckets, hash, equal, replace,
                        replace_context);
}

void hashtable_fast_init(hashtable_t *hashtable, hashtable_node_t **bucket_array,
                         std::uint32_t num_buckets, HASHTABLE_HASH_FUNC_T hash,
                         HASHTABLE_EQUAL_FUNC_T equal, HASHTABLE_REPLACE_FUNC_T replace,
                         void *replace_context)
{
    assert(hashtable && bucket_array && num_buckets > 0 && hash && equal);
    for (std::uint32_t i = 0; i < num_buckets; ++i) {
        assert(!bucket_array[i]);
    }
    *hashtable = {bucket_array, hash, equal, replace, replace_context, num_buckets, 0};
}

hashtable_node_t **hashtable_bucket_array(const hashtable_t *hashtable)
{
    assert(hashtable);
    return hashtable->bucket_array;
}

std::uint32_t hashtable_num_buckets(const hashtable_t *hashtable)
{
    assert(hashtable);
    return hashtable->num_buckets;
}

std::uint32_t hashtable_size(const hashtable_t *hashtable)
{
    assert(hashtable);
    return hashtable->size;
}

int hashtable_empty(const hashtable_t *hashtable)
{
    assert(hashtable);
    return hashtable->size == 0 ? 1 : 0;
}

int hashtable_contains_key(const hashtable_t *hashtable, const void *key)
{
    assert(hashtable);
    return hashtable_lookup_key(hashtable, key) != nullptr ? 1 : 0;
}

void hashtable_insert(hashtable_t *hashtable, const void *key, hashtable_node_t *node)
{
    assert(hashtable && node);
    hashtable_node_t **bucket = bucket_of(hashtable, key);
    hashtable_node_t **link = find_link(hashtable, key, bucket);
    hashtable_node_t *replaced = *link;
    if (replaced == nullptr) {
        node->next = *bucket;
        *bucket = node;
        hashtable->size += 1;
        return;
    }
    node->next = replaced->next;
    *link = node;
    poison(replaced);
    if (hashtable->replace) hashtable->replace(replaced, node, hashtable->replace_context);
}

hashtable_node_t *hashtable_lookup_key(const hashtable_t *hashtable, const void *key)
{
    assert(hashtable);
    return *find_link(hashtable, key, bucket_of(hashtable, key));
}

void hashtable_remove_key(hashtable_t *hashtable, const void *key)
{
    assert(hashtable);
    hashtable_node_t **link = find_link(hashtable, key, bucket_of(hashtable, key));
    hashtable_node_t *removed = *link;
    if (removed == nullptr) return;
    *link = removed->next;
    poison(removed);
    hashtable->size -= 1;
}

void hashtable_remove_all(hashtable_t *hashtable)
{
    assert(hashtable);
    if (hashtable->size == 0) return;
    std::fill_n(hashtable->bucket_array, hashtable->num_buckets, nullptr);
    hashtable->size = 0;
}
