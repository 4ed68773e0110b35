#include "tests/support/proxy_fixture.h"

#include "src/channel_dispatch.h"
#include "src/channel_state.h"
#include "src/remote_access_proxy_channel.h"
#include "src/remote_access_proxy_thread.h"
#include "utility/text.h"

#include <csignal>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>

bool g_out_of_memory = false;

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return std::exchange(g_out_of_memory, false) ? nullptr : ::operator new(size);
}

std::string wire(int type, const std::string &id, const std::string &token,
                 const std::string &payload)
{
    return "{\"msg_type\": " + std::to_string(type) +
           ",\"payload_len\": " + std::to_string(payload.size()) + ",\"msg_id\": \"" + id +
           "\",\"timestamp\":" + std::to_string(fake_clock::WALL_S) + ",\"token\":\"" + token +
           "\"}\r\n\r\n" + payload;
}

std::string response(const std::string &token, int code, const std::string &message,
                     const std::string &second)
{
    return wire(0, "m1", token,
                "{\"code\": " + std::to_string(code) + ", \"message\": \"" + message +
                    "\"}\r\n\r\n" + second);
}

std::string drain(int fd)
{
    std::string all;
    char bytes[4096];
    for (;;) {
        const ssize_t count = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count <= 0) return all + (count == 0 ? "EOF" : "");
        all.append(bytes, static_cast<std::size_t>(count));
    }
}

LISTENER_T::LISTENER_T() : socket{::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)}
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(0, ::bind(socket.get(), any, length));
    EXPECT_EQ(0, ::listen(socket.get(), 8));
    EXPECT_EQ(0, ::getsockname(socket.get(), any, &length));
    port = ntohs(address.sin_port);
}

static void connectPair(UniqueFd *near, UniqueFd *far)
{
    int fds[2] = {-1, -1};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
    near->reset(fds[0]);
    far->reset(fds[1]);
}

void ProxyTest::SetUp()
{
    fake_clock::reset();
    fake_websocket = {};
    (void)::signal(SIGPIPE, SIG_IGN);
    list_init(&record.service_list);
    copy_text(record.product_key, "pk1");
    copy_text(record.device_name, "dev1");
    copy_text(record.device_secret, "secret1");
    record.remote_access_switch.store(1);
    record.tls_type = 1;
    record.trans_timeout = 100;
    record.tcp_keepalive_period = 5;
    record.ping_period = 80;
    ASSERT_EQ(0, initRemoteProxyResource(&proxy, &record));
    fake_logger::take();
}

void ProxyTest::TearDown()
{
    closeCloudChannelConnection(&proxy);
    releaseAllSessionsFromTable(&proxy.session_table);
    freeDataBuffer(&proxy.recv_buffer);
    freeDataBuffer(&proxy.send_buffer);
    std::free(proxy.services_info.load());
}

void ProxyTest::openChannel(CHANNEL_STATE state)
{
    connectPair(&channel_near, &channel_far);
    fake_websocket = {.socket_fd = channel_near.get()};
    closeCloudChannelConnection(&proxy);
    proxy.conn = openCloudProxyChannel("cloud.example", "443", nullptr, 0, 1);
    setChannelState(&proxy, state);
    proxy.last_active_time.tv_sec = fake_clock::START_S;
    fake_websocket.calls.clear();
    fake_logger::take();
}

UniqueFd ProxyTest::addSession(const char *id)
{
    UniqueFd near, far;
    connectPair(&near, &far);
    EXPECT_EQ(0, addOneSessionToTable(&proxy.session_table, id, near.release(), nullptr));
    return far;
}

std::string ProxyTest::receive(const std::string &message)
{
    fake_logger::take();
    fake_websocket.incoming.push_back({message});
    cloudDataProc(&proxy);
    std::string log = fake_logger::take();
    if (log.starts_with("1 header len:")) {
        const std::size_t end = log.find('|', log.find('|') + 1);
        log = end != std::string::npos ? log.substr(end + 1) : "";
    }
    return log;
}

std::string ProxyTest::sent()
{
    std::string joined;
    for (const std::string &message : std::exchange(fake_websocket.sent, {}))
        joined += (joined.empty() ? "" : "|") + message;
    return maskIds(joined);
}
