// Which account holds the other end of a loopback TCP connection. The kernel does not tell this
// through the socket itself, as it does for Unix sockets.
// Source   sock_diag(7), 0.1 ms; without it proc(5), /proc/net/tcp and tcp6, which takes 20 ms and
//          more: the kernel walks through all its connections.
// Threads  none of it keeps state.
#pragma once

#include <optional>
#include <sys/types.h>

// fd is the accepted end of an established connection between two sockets of this network
// namespace, IPv4 (its peer may be an IPv6 socket with a mapped address). None when the peer is
// not found, or is gone: a closed socket that the kernel still drains belongs to nobody.
std::optional<uid_t> loopback_peer_owner(int fd) noexcept;
