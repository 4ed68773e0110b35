// Both ends of this project could share a mistake; this one talks to somebody else's WebSocket.
#include "scripted_server.h"

#include <cstdio>
#include <gtest/gtest.h>

TEST(IndependentServer, EchoesEverySizeOverPlainAndTls)
{
    const TemporaryDirectory directory;
    const std::string pem =
        directory.write("server.pem", pemOf(makeIdentity({.names = "IP:127.0.0.1"})));
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "TLS" : "plain");
        CLIENT_T client;
        FILE *server =
            popen(("exec /usr/bin/python3 " ECHO_SERVER " " + (tls ? pem : "")).c_str(), "re");
        ASSERT_NE(server, nullptr);
        char port[16] = "";
        EXPECT_EQ(fscanf(server, "%15s", port), 1);
        client.dial("127.0.0.1", port, tls ? optionsFor(pem.c_str()) : nullptr);
        noPollConn *conn = client.conn.get();
        EXPECT_TRUE(nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S)) << client.log;
        for (const std::size_t size : {0U, 1U, 125U, 126U, 65535U, 65536U, 200000U}) {
            SCOPED_TRACE(size);
            const std::string message = patternOf(size, 3);
            EXPECT_EQ(nopoll_conn_send_binary(conn, message.data(), static_cast<long>(size)),
                      static_cast<int>(size));
            EXPECT_TRUE(awaitMessage(conn) == message) << "whole";
            EXPECT_TRUE(awaitMessage(conn) == message) << "in fragments";
        }
        client.conn.reset();
        EXPECT_EQ(pclose(server), 0) << "the server did not see an orderly end";
    }
}
