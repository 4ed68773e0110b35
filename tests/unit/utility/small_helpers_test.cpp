#include "utility/handles.h"
#include "utility/message_id.h"
#include "utility/socket_option.h"
#include "utility/thread_handle.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

TEST(MessageId, DrawsFromTheUnseededGenerator)
{
    char text[3] = "xx";
    EXPECT_STREQ("xx", randomString(text, 0));
    EXPECT_STREQ("", randomString(text, 1));
    EXPECT_EQ('x', text[1]);
    std::srand(1); // the state of a process that never seeds
    const char *shared = generateMsgId();
    EXPECT_STREQ("PKdhtXMmr18n2L9K88eMlGn7CcctT9", shared);
    EXPECT_EQ(shared, generateMsgId());
    EXPECT_STRNE("PKdhtXMmr18n2L9K88eMlGn7CcctT9", shared);
}

TEST(SocketOption, SendsWithoutDelay)
{
    const UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    EXPECT_EQ(0, setSocketNoDelay(fd.get()));
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, ::getsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &value, &size));
    EXPECT_NE(0, value);
}

TEST(ThreadHandle, StartsInStateZeroOnly)
{
    THREAD_HANDLE_T handle{};
    for (const auto state : {THREAD_STATE_RUNNING, THREAD_STATE_STOPPING}) {
        handle.run_state.store(state);
        EXPECT_EQ(-1, createDetachedThread(&handle, nullptr, nullptr));
        EXPECT_EQ(state, handle.run_state.load());
    }
    handle.run_state.store(THREAD_STATE_STOPPED);
    EXPECT_EQ(0, stopDetachedThread(&handle));
}
