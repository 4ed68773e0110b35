// Finds a channel whose other end is gone without a word, or hears nothing any more.
// Bound    six keepalive periods in each case, 30 s by default.
// Threads  the proxy thread alone: there is one channel.
// Failure  what the kernel refuses stays at its default.
#pragma once

#include <cstdint>

// Keepalive probes find the end of an idle channel, and TCP_USER_TIMEOUT that of one with bytes in
// flight, when no probes run (tcp(7)). period_s 0 or less: the kernel's defaults.
void watchPeer(int fd, std::int32_t period_s);

// True when nothing that was sent from here arrives although the other end still sends: it repeats
// what it has sent before, which keeps the kernel from probing it, answers no probe and has nothing
// new. Call it about once a second, with the arguments of watchPeer().
[[nodiscard]] bool isPeerDeaf(int fd, std::int32_t period_s);
