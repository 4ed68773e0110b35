#include "src/remote_access_session_mgr.h"
#include "tests/support/proxy_fixture.h"

#include <fcntl.h>

namespace {

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

    SESSION_TABLE_T table{};
};

} // namespace

TEST_F(SessionTable, ReleaseClosesTheSocketOnce)
{
    const int fd = add("abc");
    EXPECT_EQ(0, addOneSessionToTable(&table, "zero", 0, nullptr));
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "abc"));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ("", fake_logger::take(0));
    EXPECT_EQ(fd, add("other")); // the descriptor belongs to something else now
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "abc"));
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ("1 sessionID:abc had release!", fake_logger::take(0));
    EXPECT_EQ(0, releaseOneSessionFromTable(&table, "zero"));
    EXPECT_TRUE(isOpen(0));
    EXPECT_EQ(1U, getSessionTableSize(&table));
}

// Another thread may ask before there is a table.
TEST_F(SessionTable, IsEmptyBeforeItIsInitialised)
{
    SESSION_TABLE_T early{};
    EXPECT_EQ(-1, initSessionTable(nullptr));
    EXPECT_EQ(-1, checkOneSessionInTable(&early, "abc"));
    const auto unwanted = [](SESSION_NODE_T *, void *) {
        ADD_FAILURE();
        return 0;
    };
    traverseSessionTable(&early, unwanted, nullptr);
    EXPECT_EQ(0, releaseAllSessionsFromTable(&table)); // so is one without sessions
}
