// The bare connection between two threads: what TLS and the kernel cost without any tunnel.
#pragma once

struct BARE_CASE_T {
    const char *suite;
    const char *certificate;
    const char *key;
    bool down; // the gateway's thread is the sender
    double window_s;
    int gateway_cpu; // its thread runs there alone; -1: anywhere
};

// Reports the least that a gateway can spend, one end in TLS and one plain, and the MB/s of TLS.
void measureBareTls(const BARE_CASE_T &bare);
