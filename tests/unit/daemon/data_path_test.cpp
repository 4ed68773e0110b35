#include "src/select_pass.h"
#include "src/service_connect.h"
#include "src/service_data.h"
#include "tests/support/proxy_fixture.h"

#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

struct SEND_STEP_T {
    ssize_t result;
    int error;
};
std::deque<SEND_STEP_T> g_sends; // none left: the real send

class DataPath : public ProxyTest {
protected:
    void SetUp() override
    {
        ProxyTest::SetUp();
        openChannel(CHANNEL_STATE_CONNECTED);
        far = addSession("s1");
        session = findOneSessionFromTable(&proxy.session_table, "s1");
    }
    // One pass of the channel and its sessions; returns what it logged.
    std::string pass(int min_level)
    {
        fake_logger::take();
        EXPECT_EQ(0, proxyDataProc(&proxy));
        return fake_logger::take(min_level);
    }
    int sendDown(const std::string &bytes)
    {
        resetDataBuffer(&proxy.recv_buffer);
        EXPECT_EQ(0, appendDataBuffer(&proxy.recv_buffer, bytes.data(),
                                      static_cast<std::int32_t>(bytes.size())));
        fake_logger::take();
        return sendRawData2LocalService(&proxy.recv_buffer, session);
    }
    void serve(const std::string &bytes)
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::write(far.get(), bytes.data(), bytes.size()));
    }

    UniqueFd far;
    SESSION_NODE_T *session = nullptr;
};

} // namespace

// The linker puts it in the place of the C library's function (--wrap).
extern "C" {
ssize_t __real_send(int fd, const void *bytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *bytes, size_t size, int flags)
{
    if (g_sends.empty()) return __real_send(fd, bytes, size, flags);
    const SEND_STEP_T step = g_sends.front();
    g_sends.pop_front();
    if (step.error != 0) errno = step.error;
    return step.result;
}
}

TEST_F(DataPath, SendErrorsDecideWhatBecomesOfTheRest)
{
    const std::string total = "0 local data total len:10|0 send to local service len:10|";
    const std::string part =
        "2 want to write len: 10, but writen len: 4|0 send to local service len:6|";
    const std::string bad = "2 local service bad: ";
    const std::string again = bad + "Resource temporarily unavailable, writenLen:-1|2 local socket "
                                    "block, try again!|";
    const std::string broken = "|2 local socker error! release this session|";
    const SEND_STEP_T full{-1, EAGAIN};
    const struct {
        std::deque<SEND_STEP_T> sends;
        int result;
        std::string log, sleeps;
    } rows[] = {
        {{{10, 0}}, 0, "", ""},
        {{{4, 0}, {6, 0}}, 0, part, ""},
        {{full, full, full}, 0, again + again + again, "20 20 20 "},
        {{full, {10, 0}}, 0, again, "20 "},
        {{full, full, {4, 0}, full, full, full},
         0,
         again + again + part + again + again + again,
         "20 20 20 20 20 "},
        {{{-1, EINTR}}, 0, bad + "Interrupted system call, writenLen:-1|0 EINTR return error|", ""},
        {{{-1, ECONNRESET}}, -1, bad + "Connection reset by peer, writenLen:-1" + broken, ""},
        {{{0, 0}}, -1, bad + "Success, writenLen:0" + broken, ""},
    };
    for (const auto &row : rows) {
        g_sends = row.sends;
        errno = EAGAIN; // left over from before
        EXPECT_EQ(row.result, sendDown("0123456789"));
        EXPECT_EQ(total + row.log, fake_logger::take(0) + "|");
        EXPECT_EQ("sendRawData2LocalService", fake_logger::owners());
        EXPECT_EQ(row.sleeps, fake_clock::takeSleeps());
        EXPECT_TRUE(g_sends.empty());
    }
}

TEST_F(DataPath, FullSocketTakesTheRestOnceItsReaderReads)
{
    const int small = 1;
    ::setsockopt(session->socket_fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string bytes, got;
    while (bytes.size() < 50000)
        bytes += std::to_string(bytes.size());
    fake_clock::onSleep([&] { got += drain(far.get()); });
    EXPECT_EQ(0, sendDown(bytes));
    EXPECT_EQ(bytes, got + drain(far.get()));
    EXPECT_NE("", fake_clock::takeSleeps());
    fake_clock::onSleep(nullptr);
    EXPECT_EQ(0, sendDown(bytes));
    EXPECT_EQ("20 20 20 ", fake_clock::takeSleeps());
    const std::string part = drain(far.get());
    EXPECT_EQ(bytes.substr(0, part.size()), part);
    EXPECT_LT(part.size(), bytes.size());
}

TEST_F(DataPath, ServesServicesBeforeTheChannel)
{
    serve("up");
    ASSERT_EQ(1, ::write(channel_far.get(), "x", 1)); // makes the channel readable
    fake_websocket.incoming = {{wire(4, "m1", "", "{\"service_ip\":\"1.1.1.1.1\"}")}};
    fake_clock::advance(7);
    pass(0);
    EXPECT_EQ(wire(21, ID, "s1", "up") + "|" +
                  response("", 101671, "BL local service is not available"),
              sent());
    EXPECT_EQ(1007, proxy.last_active_time.tv_sec);
    EXPECT_EQ(1007, fake_clock::seconds()); // nothing was waited for
}

TEST_F(DataPath, PassWaitsUnlessTheLibraryHoldsBytes)
{
    proxy.debug_switch = 1;
    pass(0);
    EXPECT_EQ(1001, fake_clock::seconds());
    EXPECT_EQ(1000, proxy.last_active_time.tv_sec); // an idle pass is no activity
    EXPECT_EQ("handler on|", fake_websocket.calls);
    fake_websocket.read_pending = 1;
    fake_websocket.incoming = {{wire(22, "m1", "s1", "down")}};
    pass(0);
    EXPECT_EQ("down", drain(far.get()));
    EXPECT_EQ(1001, fake_clock::seconds());
}

TEST_F(DataPath, FailedSelectEndsTheSessionThatCausedIt)
{
    const UniqueFd healthy = addSession("s2");
    ::close(session->socket_fd);
    EXPECT_EQ("2 failed to select: Bad file descriptor, errno:9, ret: -1|2 system error:Bad file "
              "descriptor, errno:9. local service exit, release session: s1",
              pass(2));
    EXPECT_EQ(wire(5, ID, "s1"), sent());
    EXPECT_EQ("", pass(2));
    EXPECT_EQ(1U, getSessionTableSize(&proxy.session_table));
}

TEST_F(DataPath, ReadSetHoldsEverySocketItCan)
{
    for (const auto &[id, fd] : {std::pair{"zero", 0}, {"negative", -1}, {"large", FD_SETSIZE}})
        ASSERT_EQ(0, addOneSessionToTable(&proxy.session_table, id, fd, nullptr));
    int max_fd = -1;
    EXPECT_EQ(0, setProxySocketsToRfds(&proxy, &max_fd));
    EXPECT_EQ(std::max(session->socket_fd, channel_near.get()), max_fd);
    EXPECT_FALSE(FD_ISSET(0, &proxy.read_fds));
    EXPECT_TRUE(FD_ISSET(session->socket_fd, &proxy.read_fds));
    EXPECT_TRUE(FD_ISSET(channel_near.get(), &proxy.read_fds));
    fake_websocket.socket_fd = -1;
    EXPECT_EQ(PASS_NO_CHANNEL, proxyDataProc(&proxy));
}

TEST_F(DataPath, ConnectsWithinItsTime)
{
    LISTENER_T listener;
    const UniqueFd socket{connect2LocalService("127.0.0.1", listener.port)};
    int no_delay = 0;
    socklen_t size = sizeof no_delay;
    EXPECT_EQ(0, ::getsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &no_delay, &size));
    EXPECT_EQ(1, no_delay);
    EXPECT_NE(0, ::fcntl(socket.get(), F_GETFL) & O_NONBLOCK);
    fake_logger::take();
    ASSERT_EQ(0, ::listen(listener.socket.get(), 0)); // one waits already: no more is answered
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(listener.port);
    const auto *const any = reinterpret_cast<const sockaddr *>(&address);
    const UniqueFd late{::socket(AF_INET, SOCK_STREAM, 0)};
    EXPECT_EQ(-1, connectWithUnblock(late.get(), any, sizeof address, 30));
    EXPECT_EQ("1 unblock mode sockfd is connecting...|2 connection time out: Service Unavailable "
              "or destination port disabled",
              fake_logger::take());
    EXPECT_EQ(-1, connectWithUnblock(late.get(), any, sizeof address, 30));
    EXPECT_EQ("2 sockfd connect failed: Operation already in progress", fake_logger::take());
}
