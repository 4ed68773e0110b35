#include "utility/hash_table_c/hash_string.h"
#include "utility/hash_table_c/hashtable.h"

#include <cstring>
#include <gmock/gmock.h>
#include <string>
#include <vector>

namespace {

struct ELEMENT_T : hashtable_node_t {
    const char *key;
};

int equal_key(const void *key, const hashtable_node_t *node)
{
    const char *const own = static_cast<const ELEMENT_T *>(node)->key;
    return std::strcmp(static_cast<const char *>(key), own) == 0 ? 1 : 0;
}

// Even and odd lengths: two buckets whose chains a test can name.
std::uint32_t hash_length(const void *key)
{
    return static_cast<std::uint32_t>(std::strlen(static_cast<const char *>(key)));
}

void note_replaced(hashtable_node_t *old_node, hashtable_node_t *node, void *context)
{
    static_cast<std::vector<hashtable_node_t *> *>(context)->assign({old_node, node});
}

class HashTable : public testing::Test {
protected:
    HashTable()
    {
        hashtable_init(&table, buckets, 2, hash_length, equal_key, note_replaced, &replaced);
        expect_chains("", "", 0);
        for (ELEMENT_T *element : {&a, &b, &c, &dd}) {
            hashtable_insert(&table, element->key, element);
        }
    }
    void expect_chains(const char *even, const char *odd, std::uint32_t size)
    {
        std::string keys[2];
        for (int i = 0; i < 2; ++i) {
            hashtable_node_t *node = hashtable_bucket_array(&table)[i];
            for (; node != nullptr; node = node->next)
                keys[i] += static_cast<ELEMENT_T *>(node)->key;
        }
        EXPECT_THAT(keys, testing::ElementsAre(even, odd));
        EXPECT_EQ(size, hashtable_size(&table));
        EXPECT_EQ(size == 0, hashtable_empty(&table) == 1);
    }

    hashtable_node_t garbage{};
    hashtable_node_t *buckets[2] = {&garbage, &garbage};
    hashtable_t table{};
    std::vector<hashtable_node_t *> replaced;
    ELEMENT_T a{{}, "a"}, b{{}, "b"}, c{{}, "c"}, dd{{}, "dd"};
    hashtable_node_t *const poison = reinterpret_cast<hashtable_node_t *>(0x100);
};

} // namespace

TEST_F(HashTable, ListsEachBucketNewestFirstAndEmpties)
{
    expect_chains("dd", "cba", 4);
    EXPECT_EQ(2U, hashtable_num_buckets(&table));
    EXPECT_EQ(&b, hashtable_lookup_key(&table, "b"));
    EXPECT_EQ(nullptr, hashtable_lookup_key(&table, "x"));
    EXPECT_EQ(1, hashtable_contains_key(&table, "dd"));
    EXPECT_EQ(0, hashtable_contains_key(&table, "ee"));
    hashtable_remove_all(&table);
    expect_chains("", "", 0);
    EXPECT_EQ(&b, c.next); // the elements are left alone
    buckets[0] = &garbage;
    hashtable_remove_all(&table); // and so is an empty table's array
    EXPECT_EQ(&garbage, buckets[0]);
}

TEST_F(HashTable, AnEqualKeyTakesTheOldPlace)
{
    ELEMENT_T again[] = {{{}, "c"}, {{}, "b"}, {{}, "a"}}; // head, middle and tail of the chain
    for (ELEMENT_T &element : again) {
        hashtable_node_t *old_node = hashtable_lookup_key(&table, element.key);
        hashtable_insert(&table, element.key, &element);
        expect_chains("dd", "cba", 4);
        EXPECT_EQ(&element, hashtable_lookup_key(&table, element.key));
        EXPECT_THAT(replaced, testing::ElementsAre(old_node, &element));
        EXPECT_EQ(poison, old_node->next);
    }
    table.replace = nullptr;
    hashtable_insert(&table, "a", &a);
    EXPECT_EQ(poison, again[2].next);
}

TEST_F(HashTable, RemovesByKeyAndPoisons)
{
    hashtable_remove_key(&table, "x");
    expect_chains("dd", "cba", 4);
    hashtable_remove_key(&table, "b");
    expect_chains("dd", "ca", 3);
    hashtable_remove_key(&table, "c");
    expect_chains("dd", "a", 2);
    EXPECT_TRUE(b.next == poison && c.next == poison);
}

TEST(HashString, HashesUnsignedBytes)
{
    EXPECT_EQ(5381U, hash_string(""));
    EXPECT_EQ(177670U, hash_string("a"));
    EXPECT_EQ(5381U * 33 + 255, hash_string("\xff"));
    EXPECT_EQ(0x0abb7000U, hash_string("0123456789abcdefghijABCDEFGHIJ")); // wraps
}

using HashTableDeathTest = HashTable;

// The checks are part of the contract in every build type.
TEST_F(HashTableDeathTest, ViolatedPreconditionsNameTheirExpression)
{
    hashtable_node_t *full[] = {nullptr, &garbage};
    hashtable_t *none = nullptr;
    EXPECT_DEATH(hashtable_init(&table, full, 0, hash_string, equal_key, nullptr, nullptr),
                 "hashtable && bucket_array && num_buckets > 0 && hash && equal' failed");
    EXPECT_DEATH(hashtable_fast_init(&table, full, 2, hash_string, equal_key, nullptr, nullptr),
                 "!bucket_array.i.' failed");
    EXPECT_DEATH(hashtable_insert(&table, "a", nullptr), "hashtable && node' failed");
    EXPECT_DEATH(hashtable_remove_key(none, ""), "Assertion `hashtable' failed");
    EXPECT_DEATH(hash_string(nullptr), "Assertion `string' failed");
}
