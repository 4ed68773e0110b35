#include "tests/unit/backend/scripted_device.h"

#include "backend/devices/handshake.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

bool isReady(int fd, short events, int wait_ms)
{
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, wait_ms) > 0;
}

TcpPeer::TcpPeer(std::uint16_t port) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const int on = 1;
    EXPECT_EQ(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
}

TcpPeer::~TcpPeer()
{
    if (fd >= 0) close(fd);
}

void TcpPeer::send(std::string_view bytes)
{
    while (!bytes.empty() && isReady(fd, POLLOUT)) {
        const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) break;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    EXPECT_TRUE(bytes.empty());
}

std::size_t TcpPeer::sendUntilBlocked(std::string_view bytes, std::size_t limit)
{
    std::size_t sent = 0;
    while (sent < limit && isReady(fd, POLLOUT, 300)) {
        const std::string_view rest = bytes.substr(sent % bytes.size());
        const ssize_t count = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) break;
        sent += static_cast<std::size_t>(count);
    }
    return sent;
}

std::string TcpPeer::receive(std::size_t size)
{
    std::string bytes(size, '\0');
    std::size_t got = 0;
    while (got < size && isReady(fd, POLLIN)) {
        const ssize_t count = recv(fd, bytes.data() + got, size - got, 0);
        if (count <= 0) break;
        got += static_cast<std::size_t>(count);
    }
    bytes.resize(got);
    return bytes;
}

std::string TcpPeer::ending()
{
    std::array<char, 65536> dropped{};
    while (isReady(fd, POLLIN)) {
        const ssize_t count = recv(fd, dropped.data(), dropped.size(), 0);
        if (count == 0) return "end";
        if (count < 0) return errno == ECONNRESET ? "reset" : "failed";
    }
    return "open";
}

void TcpPeer::endSending()
{
    EXPECT_EQ(shutdown(fd, SHUT_WR), 0);
}

ScriptedDevice::ScriptedDevice(std::uint16_t port) : peer(port)
{
    peer.send("GET / HTTP/1.1\r\nHost: backend\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos) {
        const std::string byte = peer.receive(1);
        if (byte.empty()) {
            ADD_FAILURE() << "no answer to the upgrade: " << answer;
            return;
        }
        answer += byte;
    }
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 101 ")) << answer;
    EXPECT_NE(answer.find("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="), std::string::npos) << answer;
}

// The mask is zero, so that the payload is in the frame unchanged.
std::string ScriptedDevice::frame(int opcode, std::string_view bytes)
{
    std::string text{static_cast<char>(0x80 | opcode)};
    if (bytes.size() < 126) {
        text += static_cast<char>(0x80 | bytes.size());
    } else {
        text += static_cast<char>(0x80 | (bytes.size() < 65536 ? 126 : 127));
        for (int shift = bytes.size() < 65536 ? 8 : 56; shift >= 0; shift -= 8) {
            text += static_cast<char>(bytes.size() >> shift);
        }
    }
    return text.append(4, '\0').append(bytes);
}

std::string ScriptedDevice::message(int type, std::string_view id, std::string_view token,
                                    std::string_view payload)
{
    std::string text = "{\"msg_type\": " + std::to_string(type) +
                       ",\"payload_len\": " + std::to_string(payload.size());
    text.append(",\"msg_id\": \"")
        .append(id)
        .append("\",\"timestamp\":1,\"token\":\"")
        .append(token);
    return text.append("\"}\r\n\r\n").append(payload);
}

void ScriptedDevice::sendFrame(int opcode, std::string_view bytes)
{
    peer.send(frame(opcode, bytes));
}

void ScriptedDevice::send(int type, std::string_view id, std::string_view token,
                          std::string_view payload)
{
    sendFrame(2, message(type, id, token, payload));
}

void ScriptedDevice::sendHandshake(const std::string &name, const std::string &secret,
                                   std::int64_t timestamp)
{
    const std::string payload =
        R"({"uuid": "quorvex_iot","product_key": "pk1","device_name": ")" + name +
        R"(","version":"2.1","IP":"","MAC":"","token":"", "service_meta": [)"
        R"({"service_type":"SSH","service_name":"ssh","service_ip":"127.0.0.1",)"
        R"("service_port":22})" +
        more_services + R"(],"signmethod": "hmacsha256", "sign": ")" +
        backend::signHandshake(secret, "quorvex_iot", {"pk1", name}, timestamp) + "\"}";
    std::string text = message(1, "msg_id_for_handshake", "", payload);
    const std::string mark = "\"timestamp\":1";
    text.replace(text.find(mark), mark.size(), "\"timestamp\":" + std::to_string(timestamp));
    sendFrame(2, text);
}

std::optional<MESSAGE_SEEN_T> ScriptedDevice::receive()
{
    if (!isReady(peer.fd, POLLIN)) return std::nullopt;
    const std::string start = peer.receive(2);
    has_ended = start.size() < 2 || start[0] == static_cast<char>(0x88);
    if (has_ended || start[0] != static_cast<char>(0x82))
        return std::nullopt; // whole and binary only
    std::size_t size = static_cast<unsigned char>(start[1]);
    if (size >= 126) {
        const std::string more = peer.receive(size == 126 ? 2 : 8);
        size = 0;
        for (const char byte : more)
            size = size << 8 | static_cast<unsigned char>(byte);
    }
    const std::string bytes = peer.receive(size);
    EXPECT_LE(bytes.size(), 51200U);
    MESSAGE_SEEN_T seen;
    const std::size_t end = bytes.find("\r\n\r\n");
    if (bytes.size() != size || end == std::string::npos) return std::nullopt;
    seen.header_text = bytes.substr(0, end + 4);
    seen.payload = bytes.substr(end + 4);
    seen.header = nlohmann::json::parse(bytes.substr(0, end), nullptr, false);
    EXPECT_EQ(seen.header.value("payload_len", std::size_t{99999}), seen.payload.size());
    return seen;
}

bool ScriptedDevice::isClosed()
{
    while (receive())
        continue;
    return has_ended;
}
