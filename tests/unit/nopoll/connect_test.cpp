// Getting connected, and to whom: addresses, certificates, names, and what the log says when it
// fails.
#include "scripted_server.h"

#include "platform/nopoll/net_connect.h"
#include "platform/nopoll/wire.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

using testing::HasSubstr;

namespace {

struct Identity : testing::Test {
    TemporaryDirectory directory;
    IDENTITY_T authority = makeIdentity({.subject = "authority", .authority = true});
    IDENTITY_T stranger = makeIdentity({.subject = "authority", .authority = true});
    std::string ca = directory.write("ca.pem", pemOf(authority));

    // Opens a TLS channel to a server with this identity, which is expected to carry this name; ""
    // when it gets ready, else what was logged.
    std::string visit(const IDENTITY_T &identity, const char *name, noPollConnOpts *options,
                      std::string *sni = nullptr, int max_tls = TLS1_3_VERSION)
    {
        ScriptedServer server{&identity, max_tls};
        CLIENT_T client;
        server.acceptOne(properAnswer);
        client.dial("127.0.0.1", server.port(), options, name);
        noPollConn *conn = client.conn.get();
        const bool ready = nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S);
        EXPECT_EQ(nopoll_conn_is_ok(conn), ready);
        EXPECT_EQ(nopoll_conn_socket(conn) >= 0, ready);
        if (!ready) server.abandon();
        server.settle();
        if (sni) *sni = server.serverName();
        return ready ? "" : client.log;
    }
};

UniqueFd listenOn(sockaddr_in &address, int backlog)
{
    UniqueFd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(listen(listener.get(), backlog), 0);
    getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &size);
    return listener;
}

UniqueFd knock(const sockaddr_in &address)
{
    UniqueFd caller{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    (void)connect(caller.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    return caller;
}

} // namespace

TEST_F(Identity, HoldsTheServerAgainstTheCaFileAndItsName)
{
    const auto signedFor = [&](const char *names) {
        return makeIdentity({.names = names}, &authority);
    };
    const IDENTITY_T named = signedFor("IP:127.0.0.1,DNS:gw1.test.example");
    const IDENTITY_T other_name = signedFor("DNS:gw2.test.example,IP:127.0.0.2");
    const IDENTITY_T wildcard = signedFor("DNS:*.test.example");
    const IDENTITY_T partial = signedFor("DNS:gw*.test.example");
    const IDENTITY_T by_stranger = makeIdentity({.names = "IP:127.0.0.1"}, &stranger);
    const IDENTITY_T expired =
        makeIdentity({.names = "IP:127.0.0.1", .ends_in_s = -60}, &authority);
    const IDENTITY_T early =
        makeIdentity({.names = "IP:127.0.0.1", .starts_in_s = 600}, &authority);
    const IDENTITY_T pinned = makeIdentity({.subject = "back end"});
    const IDENTITY_T twin = makeIdentity({.subject = "back end"});
    const IDENTITY_T stale_pin = makeIdentity({.ends_in_s = -60});
    const std::string pin = directory.write("pin.pem", pemOf(pinned));
    const std::string old_pin = directory.write("old.pem", pemOf(stale_pin));
    const std::string both = directory.write("both.pem", pemOf(authority) + pemOf(other_name));
    const char *const address = "127.0.0.1";
    const char *const name = "gw1.test.example";
    struct ROW_T {
        const char *what;
        const IDENTITY_T *identity;
        const char *ca;
        const char *name;
        const char *logged; // empty: accepted
    };
    const ROW_T rows[] = {
        {"address", &named, ca.c_str(), address, ""},
        {"name", &named, ca.c_str(), name, ""},
        {"wildcard", &wildcard, ca.c_str(), name, ""},
        {"partial wildcard", &partial, ca.c_str(), name, "hostname mismatch"},
        {"wrong address", &other_name, ca.c_str(), address, "IP address mismatch"},
        {"wrong name", &other_name, ca.c_str(), name, "hostname mismatch"},
        {"wrong CA of the same name", &by_stranger, ca.c_str(), address, "is not accepted"},
        {"expired", &expired, ca.c_str(), address, "certificate has expired"},
        {"not valid yet", &early, ca.c_str(), address, "not yet valid"},
        {"pinned", &pinned, pin.c_str(), address, ""},
        {"pinned, by name", &pinned, pin.c_str(), name, ""},
        {"not the pinned one", &twin, pin.c_str(), address, "self-signed certificate"},
        {"pinned but expired", &stale_pin, old_pin.c_str(), address, "certificate has expired"},
        {"in the file but signed by another", &other_name, both.c_str(), name, "hostname mismatch"},
        {"no such file", &named, "/nowhere/ca.pem", address, "/nowhere/ca.pem: No such file"},
        {"empty path", &named, "", address, "cannot use the CA file"},
        {"no certificate inside", &named, ECHO_SERVER, address, "cannot use the CA file"},
        {"no file", &named, nullptr, address, "no CA file is set"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string log = visit(*row.identity, row.name, optionsFor(row.ca));
        EXPECT_EQ(log.empty(), *row.logged == '\0') << log;
        EXPECT_THAT(log, HasSubstr(row.logged));
    }
}

TEST_F(Identity, AcceptsAnyCertificateOnlyWithVerificationOff)
{
    noPollConnOpts *options = optionsFor(nullptr);
    nopoll_conn_opts_ssl_peer_verify(options, nopoll_false);
    EXPECT_EQ(visit(stranger, "127.0.0.1", options), "");
    EXPECT_THAT(visit(stranger, "127.0.0.1", nopoll_conn_opts_new()),
                HasSubstr("no CA file is set"));
}

TEST_F(Identity, TellsTheServerNamesButNotAddresses)
{
    const IDENTITY_T named = makeIdentity({.names = "IP:127.0.0.1,DNS:localhost"}, &authority);
    std::string sni;
    EXPECT_EQ(visit(named, "localhost", optionsFor(ca.c_str()), &sni), "");
    EXPECT_EQ(sni, "localhost");
    EXPECT_EQ(visit(named, "127.0.0.1", optionsFor(ca.c_str()), &sni), "");
    EXPECT_EQ(sni, "");
}

TEST_F(Identity, RefusesTlsBefore12)
{
    const IDENTITY_T named = makeIdentity({.names = "IP:127.0.0.1"}, &authority);
    EXPECT_EQ(visit(named, "127.0.0.1", optionsFor(ca.c_str()), nullptr, TLS1_2_VERSION), "");
    EXPECT_THAT(visit(named, "127.0.0.1", optionsFor(ca.c_str()), nullptr, TLS1_1_VERSION),
                HasSubstr("TLS handshake failed: "));
}

TEST(Connect, SaysWhyThereIsNoConnection)
{
    sockaddr_in address;
    const UniqueFd closed_again = listenOn(address, 1);
    const std::string port = std::to_string(ntohs(address.sin_port));
    shutdown(closed_again.get(), SHUT_RDWR); // bound, but refusing
    const std::string long_label(64, 'a');
    struct ROW_T {
        const char *host;
        const char *port;
        bool exists;
        const char *logged;
    };
    const ROW_T rows[] = {
        {"127.0.0.1", port.c_str(), true, "Connection refused"},
        {long_label.c_str(), "443", false,
         "cannot resolve"}, // no name has such a label, so nobody is asked
        {"127.0.0.1", "0", true, "port is not a number from 1 to 65535"},
        {"127.0.0.1", "65536", true, "port is not a number"},
        {"127.0.0.1", "44x", true, "port is not a number"},
        {"", "443", true, "host name is empty"},
        {"host\r\nX: y", "443", true, "bytes that no name has"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.logged);
        CLIENT_T client;
        client.dial(row.host, row.port, nullptr);
        EXPECT_EQ(client.conn != nullptr, row.exists);
        EXPECT_FALSE(nopoll_conn_is_ok(client.conn.get()));
        EXPECT_EQ(nopoll_conn_socket(client.conn.get()), -1);
        EXPECT_FALSE(nopoll_conn_wait_until_connection_ready(client.conn.get(), PATIENCE_S));
        EXPECT_THAT(client.log, HasSubstr(row.logged));
    }
}

TEST(Connect, GivesEveryAddressItsTurn)
{
    // The first address swallows calls, its queue being full; the second refuses them; the third
    // takes them.
    sockaddr_in silent;
    sockaddr_in refusing;
    sockaddr_in open;
    const UniqueFd silent_listener = listenOn(silent, 0);
    const UniqueFd callers[] = {knock(silent), knock(silent), knock(silent)};
    const UniqueFd refusing_listener = listenOn(refusing, 1);
    shutdown(refusing_listener.get(), SHUT_RDWR);
    const UniqueFd open_listener = listenOn(open, 1);
    addrinfo list[3] = {};
    sockaddr_in *const targets[] = {&silent, &refusing, &open};
    for (int i = 0; i < 3; ++i) {
        list[i].ai_family = AF_INET;
        list[i].ai_socktype = SOCK_STREAM;
        list[i].ai_addr = reinterpret_cast<sockaddr *>(targets[i]);
        list[i].ai_addrlen = sizeof(sockaddr_in);
        list[i].ai_next = i < 2 ? &list[i + 1] : nullptr;
    }
    ws::FAILURE_T failure{};
    const UniqueFd connection = ws::connectToAny(list, ws::monotonicMs() + 1500, failure);
    ASSERT_TRUE(connection) << failure.text;
    sockaddr_in reached{};
    socklen_t size = sizeof reached;
    getpeername(connection.get(), reinterpret_cast<sockaddr *>(&reached), &size);
    EXPECT_EQ(reached.sin_port, open.sin_port);

    list[0].ai_next = nullptr;
    EXPECT_FALSE(ws::connectToAny(list, ws::monotonicMs() + 100, failure));
    EXPECT_THAT(failure.text, HasSubstr("timed out"));
}
