// The local end of "forward": a TCP port of 127.0.0.1 or a Unix socket, and who connects to it.
// Everybody who reaches it acts in the operator's name, so other accounts are turned away unless
// the port is shared. A TCP port of the loopback is open to every account of the machine: whose
// the connection is, is looked up.
// Ownership  the record owns the listening socket and removes a Unix socket's file.
// Threads    one thread's.
// Failure    openLocalPort and openLocalSocket throw std::runtime_error.
#pragma once

#include "utility/handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

// The file of a Unix socket; removed at the end of its life, unless another has taken its place.
class SocketFile {
public:
    SocketFile() = default;
    explicit SocketFile(std::string path);
    SocketFile(SocketFile &&other) noexcept;
    SocketFile &operator=(SocketFile &&other) noexcept;
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;
    ~SocketFile();

private:
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

struct LOCAL_PORT_T {
    UniqueFd listener;
    SocketFile file;
    std::string text; // "127.0.0.1:8080", or the path
    bool is_unix = false;
};

// 0: a free port.
LOCAL_PORT_T openLocalPort(std::uint16_t port);

// Mode 0600, or 0666 if everybody may connect. A socket file that nobody listens on any more is
// replaced.
LOCAL_PORT_T openLocalSocket(const std::string &path, bool is_shared);

// The account at the other end; none when it cannot be told, or the client is gone.
std::optional<uid_t> clientAccount(const LOCAL_PORT_T &port, int client);

// Closes the connection; a TCP client gets a reset, and takes nothing for an answer.
void turnAway(UniqueFd client);
