// The WebSocket library of a test program: what arrives and how sending goes is scripted, what was
// called and sent is kept. A context, connection, option set or message that the caller does not
// release is a leak, and one used after its release a fault: the sanitizers report it.
#pragma once

#include "platform/nopoll/nopoll.h"

#include <deque>
#include <string>
#include <vector>

struct PIECE_T {
    std::string bytes;
    bool fin = true;
    bool has_payload = true;
};

struct WRITE_STEP_T {
    int result;
    int pending = 0; // what the library holds back afterwards
    bool ok = true;  // whether the connection lives on
};

struct FAKE_WEBSOCKET_T {
    bool has_ctx = true, has_opts = true, has_conn = true; // whether each can be made
    bool ok = true, tls_on = true;
    int ready_on_wait = 1; // 0 = never
    const char *failure = "";
    int resolver_result = 0;
    int socket_fd = -1;
    int read_pending = 0;
    std::deque<PIECE_T> incoming = {};
    int pending = 0;
    std::deque<WRITE_STEP_T> sends = {};       // none left: all goes out
    std::deque<WRITE_STEP_T> completions = {}; // none left: would block
    std::vector<std::string> sent = {};
    std::string calls = {}; // those that change something, each followed by "|"
    noPollLogHandler handler = nullptr;
};

extern FAKE_WEBSOCKET_T fake_websocket;
