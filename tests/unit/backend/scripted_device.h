// A device played by a test: a blocking WebSocket client with a framing of its own, and the plain
// TCP client whose bytes are tunnelled. Every wait ends at a deadline, and then the call reports
// nothing or fails the test.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

constexpr int WAIT_MS = 5000;

bool isReady(int fd, short events, int wait_ms = WAIT_MS); // events as for poll

class TcpPeer {
public:
    explicit TcpPeer(std::uint16_t port);
    TcpPeer(TcpPeer &&other) noexcept : fd(other.fd)
    {
        other.fd = -1;
    }
    ~TcpPeer();
    void send(std::string_view bytes);
    std::size_t sendUntilBlocked(std::string_view bytes,
                                 std::size_t limit); // again and again; bytes that left
    std::string receive(std::size_t size);           // shorter at the end or the deadline
    std::string ending(); // "end", "reset", or "open" at the deadline; bytes before it are dropped
    void endSending();
    int fd = -1;
};

struct MESSAGE_SEEN_T {
    nlohmann::json header;
    std::string header_text; // with its separator
    std::string payload;
    int type() const
    {
        return header.value("msg_type", -1);
    }
    std::string id() const
    {
        return header.value("msg_id", "");
    }
    std::string token() const
    {
        return header.value("token", "");
    }
};

class ScriptedDevice {
public:
    explicit ScriptedDevice(std::uint16_t port);
    void sendFrame(int opcode, std::string_view bytes);
    void send(int type, std::string_view id, std::string_view token, std::string_view payload);
    void sendHandshake(const std::string &name, const std::string &secret, std::int64_t timestamp);
    std::optional<MESSAGE_SEEN_T> receive();
    bool isClosed(); // within the deadline; messages before it are dropped
    static std::string message(int type, std::string_view id, std::string_view token,
                               std::string_view payload);
    static std::string frame(int opcode, std::string_view bytes);
    std::string more_services; // ",{...}", behind "ssh" in the handshake
    TcpPeer peer;
    bool has_ended = false; // a close frame or the connection's end was read
};
