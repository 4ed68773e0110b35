// What the tests of the proxy's parts share: a configured proxy, a channel and sessions whose far
// ends the test holds, and messages as the back end writes them.
#pragma once

#include "src/config.h"
#include "src/proxy.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_logger.h"
#include "tests/support/fake_websocket.h"
#include "utility/handles.h"

#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

// A message as it is on the wire.
std::string wire(int type, const std::string &id, const std::string &token,
                 const std::string &payload = "");
// A response that carries a code and a second part.
std::string response(const std::string &token, int code, const std::string &message,
                     const std::string &second = "null");

// Everything that can be read at once; "EOF" behind it when the peer has closed.
std::string drain(int fd);

// A listening socket on a port of its own on loopback.
struct LISTENER_T {
    LISTENER_T();
    UniqueFd socket;
    std::uint16_t port = 0;
};

// The next allocation that may answer null does.
extern bool g_out_of_memory;

class ProxyTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // An open connection in that state, without a handshake.
    void openChannel(CHANNEL_STATE state);
    // A session; returns the far end of its socket.
    UniqueFd addSession(const char *id);
    // A message has come in whole; dispatches it. Returns what was logged, without the two lines
    // that every message has.
    std::string receive(const std::string &message);
    // What was sent since the last call, joined by "|", random ids masked.
    static std::string sent();

    REMOTE_ACCESS_CONFIG_T record{};
    REMOTE_PROXY_T proxy{};
    UniqueFd channel_near, channel_far;
};
