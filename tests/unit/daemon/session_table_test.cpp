#include "src/remote_access_session_mgr.h"
#include "tests/support/proxy_fixture.h"

#include <fcntl.h>
#include <map>
#include <thread>

namespace {

int noteId(SESSION_NODE_T *session, void *ids)
{
    *static_cast<std::string *>(ids) += std::string{session->session_id} + " ";
    return 2; // ignored
}

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

class SessionTable : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, initSessionTable(&table));
    }
    void TearDown() override
    {
        releaseAllSessionsFromTable(&table);
    }
    int add(const std::string &id)
    {
        const int fd = ::dup(2);
        EXPECT_EQ(0, addOneSessionToTable(&table, id.c_str(), fd, nullptr));
        return fd;
    }
    std::string walk()
    {
        std::string ids;
        traverseSessionTable(&table, noteId, &ids);
        return ids;
    }

    SESSION_TABLE_T table{};
};

} // namespace

TEST_F(SessionTable, FindsASessionByItsWholeId)
{
    const std::string id(63, 's');
    const int fd = add(id);
    add("abc");
    const SESSION_NODE_T *const node = findOneSessionFromTable(&table, id.c_str());
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(fd, node->socket_fd);
    EXPECT_EQ(id, node->session_id);
    for (const char *other : {"ab", "abcd", "", "ABC"})
        EXPECT_EQ(-1, checkOneSessionInTable(&table, other)) << other;
    EXPECT_EQ(0, checkOneSessionInTable(&table, "abc"));
    EXPECT_EQ(2U, getSessionTableSize(&table));
}

TEST_F(SessionTable, ReleaseClosesTheSocketOnce)
{
    const int fd = add("abc");
    EXPECT_EQ(0, addOneSessionToTable(&table, "zero", 0, nullptr));
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "abc"));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("", fake_logger::take(0));
    EXPECT_EQ(fd, add("other")); // the descriptor is somebody else's now
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "abc"));
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ("1 sessionID:abc had release!", fake_logger::take(0));
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "zero"));
    EXPECT_TRUE(isOpen(0));
    EXPECT_EQ(1U, getSessionTableSize(&table));
}

TEST_F(SessionTable, WalksTheBucketsNewestFirstAndReleasesAll)
{
    std::string expected; // ids of one character: the hash is 5381 * 33 plus the character
    std::map<unsigned, std::string> buckets;
    std::vector<int> sockets;
    EXPECT_EQ(0, releaseAllSessionsFromTable(&table));
    for (int i = 0; i < MAX_SESSIONS; ++i) {
        const std::string id(1, static_cast<char>('%' + i * 2));
        sockets.push_back(add(id));
        std::string &bucket = buckets[(5381U * 33U + static_cast<unsigned>(id[0])) % 32];
        bucket = id + " " + bucket;
    }
    for (const auto &[number, ids] : buckets)
        expected += ids;
    EXPECT_EQ(expected, walk());
    traverseSessionTable(&table, nullptr, nullptr);
    EXPECT_EQ(0, releaseAllSessionsFromTable(&table));
    EXPECT_EQ(0U, getSessionTableSize(&table));
    for (const int fd : sockets)
        EXPECT_FALSE(isOpen(fd));
}

TEST_F(SessionTable, FailsCleanlyWithoutMemoryOrTable)
{
    g_out_of_memory = true;
    EXPECT_EQ(-1, addOneSessionToTable(&table, "abc", 0, nullptr));
    EXPECT_EQ("2 session node create failed", fake_logger::take(0));
    EXPECT_EQ(0U, getSessionTableSize(&table));
    EXPECT_EQ(-1, initSessionTable(nullptr));
    SESSION_TABLE_T early{}; // another thread may ask before it is initialised
    EXPECT_EQ(-1, checkOneSessionInTable(&early, "abc"));
    traverseSessionTable(&early, noteId, nullptr);
}

// The other thread meets every session that stays, once, on each of its walks.
TEST_F(SessionTable, IsWalkedWhileSessionsComeAndGo)
{
    std::atomic<bool> done{false};
    std::atomic<int> walks{0};
    add("stays");
    std::thread reader{[&] {
        while (!done) {
            const std::string ids = walk();
            EXPECT_TRUE(ids == "stays " || ids == "passing stays " || ids == "stays passing ");
            EXPECT_EQ(0, checkOneSessionInTable(&table, "stays"));
            ++walks;
        }
    }};
    for (int i = 0; i < 2000 || walks < 10; ++i) {
        add("passing");
        releaseOneSessionFromTable(&table, "passing");
    }
    done = true;
    reader.join();
}
