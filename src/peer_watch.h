// Finds a channel whose other end is gone without closing it, or receives or takes nothing any
// more.
//
// Bound    a peer that acknowledges nothing: six keepalive periods (30 s by default), at least 20
//          s. One that answers the kernel's probes but takes no byte of what waits for it is alive,
//          and dropped after four ping periods like one that answers no ping (320 s by default).
// Threads  the proxy thread alone: there is one channel.
// Failure  what the kernel refuses stays at its default; a kernel too old for the counters leaves
//          only its own time-outs.
// Source   tcp(7), and linux/tcp.h for the counters.
#pragma once

#include <cstdint>

struct REMOTE_PROXY_T;

enum PEER_FAULT : std::int32_t {
    PEER_FAULT_NONE = 0,
    PEER_FAULT_DEAF = 1, // nothing that was sent from here arrives, though it repeats what it sent
    PEER_FAULT_FULL = 2, // it lives, but has taken nothing for four ping periods
};

// Sets a new connection up. Keepalive probes find the end of an idle channel, and TCP_USER_TIMEOUT
// that of one with bytes in flight, when no probes run. A keepalive period of 0 or less leaves the
// kernel's defaults.
void watchPeer(const REMOTE_PROXY_T *proxy);

// Looks at the connection's counters, at most once a second; a call that is not due costs a clock
// read and returns what the last look found. Call it at least every 10 s: TCP_USER_TIMEOUT would
// end a peer whose window is closed however often it answers, so it is moved ahead while it
// answers.
PEER_FAULT lookAtPeer(const REMOTE_PROXY_T *proxy);
