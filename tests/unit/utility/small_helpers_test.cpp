#include "utility/handles.h"
#include "utility/install_root.h"
#include "utility/list.h"
#include "utility/message_id.h"
#include "utility/socket_option.h"
#include "utility/thread_handle.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

namespace {

struct RECORD_T {
    char name;
    LIST_LINK_T link;
};

// Forwards, then backwards.
std::string names(const LIST_LINK_T &head)
{
    std::string text;
    for (auto step : {&LIST_LINK_T::next, &LIST_LINK_T::prev}) {
        for (LIST_LINK_T *link = head.*step; link != &head; link = link->*step) {
            text += container_of(link, RECORD_T, link)->name;
        }
    }
    return text;
}

} // namespace

TEST(List, LinksAtEitherEndAndUnlinks)
{
    LIST_LINK_T head;
    list_init(&head);
    EXPECT_EQ("", names(head));
    RECORD_T a{'a', {}}, b{'b', {}}, c{'c', {}};
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);
    list_add(&c.link, &head);
    EXPECT_EQ("cabbac", names(head));
    list_del(&a.link);
    EXPECT_EQ("cbbc", names(head));
    EXPECT_TRUE(a.link.next == &b.link && a.link.prev == &c.link); // kept
}

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

TEST(SocketOption, AddsNonBlockAndNoDelay)
{
    UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    ASSERT_TRUE(fd);
    const int before = ::fcntl(fd.get(), F_GETFL);
    EXPECT_EQ(before, setSocketNonBlock(fd.get()));
    EXPECT_EQ(before | O_NONBLOCK, ::fcntl(fd.get(), F_GETFL));
    EXPECT_EQ(0, setSocketNoDelay(fd.get()));
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, ::getsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &value, &size));
    EXPECT_NE(0, value);

    EXPECT_EQ(-1, setSocketNonBlock(-1));
    EXPECT_EQ(-1, setSocketNoDelay(-1));
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

TEST(InstallRoot, IsOneLevelAboveTheExecutable)
{
    const auto exe = std::filesystem::canonical("/proc/self/exe");
    const std::string expected = exe.parent_path().parent_path().string();
    for (int i = 0; i < 2; ++i) { // read, then remembered
        char out[INSTALL_ROOT_SIZE] = {};
        EXPECT_EQ(0, getInstallRootPath(out));
        EXPECT_EQ(expected, out);
    }
}
