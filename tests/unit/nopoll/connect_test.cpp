// Connecting: addresses, certificates, names, and what the log says when it fails.
#include "scripted_server.h"

#include "platform/nopoll/cipher_order.h"
#include "platform/nopoll/net_connect.h"
#include "platform/nopoll/wire.h"

#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

using testing::HasSubstr;

namespace {

struct Identity : testing::Test {
    IDENTITY_T authority = makeIdentity({.subject = "authority", .authority = true});
    IDENTITY_T stranger = makeIdentity({.subject = "authority", .authority = true});
    IDENTITY_T named =
        makeIdentity({.names = "IP:127.0.0.1,DNS:gw1.test.example,DNS:localhost"}, &authority);
    PEM_FILE_T ca = pemFile({&authority});
    std::string sni; // as the last server saw it
    std::string cipher;

    // Opens a TLS channel to a server with this identity, which is expected to carry this name; ""
    // when it gets ready, else what was logged.
    std::string visit(const IDENTITY_T &identity, const char *name, noPollConnOpts *options,
                      int max_tls = TLS1_3_VERSION)
    {
        ScriptedServer server{&identity, max_tls};
        CLIENT_T client;
        server.acceptOne(properAnswer);
        client.dial("127.0.0.1", server.port.c_str(), options, name);
        noPollConn *conn = client.conn.get();
        const nopoll_bool ready = nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S);
        EXPECT_EQ(nopoll_conn_is_ok(conn), ready);
        EXPECT_EQ(nopoll_conn_socket(conn) >= 0, ready == nopoll_true);
        if (!ready) server.abandon();
        server.settle();
        sni = server.server_name;
        cipher = server.cipher;
        return ready ? "" : client.log;
    }
};

} // namespace

TEST_F(Identity, HoldsTheServerAgainstTheCaFileAndItsName)
{
    const IDENTITY_T other =
        makeIdentity({.names = "DNS:gw2.test.example,IP:127.0.0.2"}, &authority);
    const IDENTITY_T partial = makeIdentity({.names = "DNS:gw*.test.example"}, &authority);
    const IDENTITY_T by_stranger = makeIdentity({.names = "IP:127.0.0.1"}, &stranger);
    const IDENTITY_T pinned = makeIdentity({.subject = "back end"});
    const IDENTITY_T twin = makeIdentity({.subject = "back end"});
    const IDENTITY_T stale = makeIdentity({.ends_in_s = -60});
    const PEM_FILE_T pin = pemFile({&pinned});
    const PEM_FILE_T stale_pin = pemFile({&stale});
    const PEM_FILE_T both = pemFile({&authority, &other});
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
        {"partial wildcard", &partial, ca.path.c_str(), name, "hostname mismatch"},
        {"wrong CA of the same name", &by_stranger, ca.path.c_str(), address, "is not accepted"},
        {"pinned, by name", &pinned, pin.path.c_str(), name, ""},
        {"not the pinned one", &twin, pin.path.c_str(), address, "self-signed certificate"},
        {"pinned but expired", &stale, stale_pin.path.c_str(), address, "has expired"},
        {"in the file, but another's", &other, both.path.c_str(), name, "hostname mismatch"},
        {"empty path", &named, "", address, "cannot use the CA file"},
        {"no file", &named, nullptr, address, "no CA file is set"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string log = visit(*row.identity, row.name, optionsFor(row.ca));
        EXPECT_EQ(log.empty(), *row.logged == '\0') << log;
        EXPECT_THAT(log, HasSubstr(row.logged));
    }
}

TEST_F(Identity, AcceptsAnyCertificateWithVerificationOff)
{
    noPollConnOpts *options = optionsFor(nullptr);
    nopoll_conn_opts_ssl_peer_verify(options, nopoll_false);
    EXPECT_EQ(visit(stranger, "127.0.0.1", options), "");
}

TEST_F(Identity, TellsTheServerNamesOverTls12OrLater)
{
    EXPECT_EQ(visit(named, "localhost", optionsFor(ca.path.c_str()), TLS1_2_VERSION), "");
    EXPECT_EQ(sni, "localhost");
    EXPECT_EQ(visit(named, "127.0.0.1", optionsFor(ca.path.c_str())), "");
    EXPECT_EQ(sni, ""); // an address is no server name
    EXPECT_THAT(visit(named, "127.0.0.1", optionsFor(ca.path.c_str()), TLS1_1_VERSION),
                HasSubstr("TLS handshake failed: "));
}

// Run a second time with the AES instructions hidden from OpenSSL.
TEST_F(Identity, AsksForTheCipherThatCostsThisProcessorLeast)
{
    const ws::AES_UNIT unit = ws::aesUnitOf(OPENSSL_info(OPENSSL_INFO_CPU_SETTINGS));
    if (unit == ws::AES_UNIT::UNKNOWN) GTEST_SKIP() << "OpenSSL knows nothing of this processor";
    const bool aes = unit == ws::AES_UNIT::THERE;
    EXPECT_EQ(visit(named, "localhost", optionsFor(ca.path.c_str())), "");
    EXPECT_EQ(cipher, aes ? "TLS_AES_128_GCM_SHA256" : "TLS_CHACHA20_POLY1305_SHA256");
    EXPECT_EQ(visit(named, "localhost", optionsFor(ca.path.c_str()), TLS1_2_VERSION), "");
    EXPECT_THAT(cipher, HasSubstr(aes ? "AES128-GCM-SHA256" : "CHACHA20-POLY1305"));
    EXPECT_THAT(cipher, testing::StartsWith("ECDHE-"));
}

TEST(Connect, KnowsAesInstructionsByWhatOpensslSaysOfTheProcessor)
{
    EXPECT_EQ(ws::aesUnitOf("CPUINFO: OPENSSL_ia32cap=0xfffa3203078bffff:0x405fc6f1bf07ab"),
              ws::AES_UNIT::THERE);
    EXPECT_EQ(ws::aesUnitOf("OPENSSL_ia32cap=0xfdfa3201078bffff:0x0 env:~0x200000200000000"),
              ws::AES_UNIT::MISSING);
    EXPECT_EQ(ws::aesUnitOf("OPENSSL_armcap=0xbd"), ws::AES_UNIT::THERE);
    EXPECT_EQ(ws::aesUnitOf("OPENSSL_armcap=0x1"), ws::AES_UNIT::MISSING);
    EXPECT_EQ(ws::aesUnitOf("N/A"), ws::AES_UNIT::UNKNOWN);
}

TEST(Connect, SaysWhyThereIsNoConnection)
{
    ScriptedServer gone;
    gone.abandon();
    const std::string long_label(64, 'a'); // no name has such a label, so no server is asked
    struct ROW_T {
        const char *host;
        const char *port;
        bool exists;
        const char *logged;
    };
    const ROW_T rows[] = {
        {"127.0.0.1", gone.port.c_str(), true, "Connection refused"},
        {long_label.c_str(), "443", false, "cannot resolve"},
        {"127.0.0.1", "0", true, "port is not a number from 1 to 65535"},
        {"127.0.0.1", "65536", true, "port is not a number"},
        {"127.0.0.1", "44x", true, "port is not a number"},
        {"", "443", true, "host name is empty"},
        {"host\r\nX: y", "443", true, "bytes that no name has"},
        {"host\x7f", "443", true, "bytes that no name has"},
        {"two words", "443", true, "bytes that no name has"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.logged);
        CLIENT_T client;
        client.dial(row.host, row.port, nullptr);
        EXPECT_EQ(client.conn != nullptr, row.exists);
        EXPECT_EQ(nopoll_conn_socket(client.conn.get()), -1);
        EXPECT_FALSE(nopoll_conn_wait_until_connection_ready(client.conn.get(), PATIENCE_S));
        EXPECT_THAT(client.log, HasSubstr(row.logged));
    }
}

TEST(Connect, GivesEveryAddressItsTurn)
{
    const ScriptedServer silent; // its queue is full: it swallows further calls
    const ScriptedServer open;
    ws::FAILURE_T failure{};
    const ws::AddressListPtr list = ws::resolveHost("127.0.0.1", silent.port.c_str(), 0, failure);
    UniqueFd callers[3];
    for (UniqueFd &caller : callers) {
        caller.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        (void)connect(caller.get(), list->ai_addr, list->ai_addrlen);
    }
    EXPECT_FALSE(ws::connectToAny(list.get(), ws::monotonicMs() + 100, failure));
    EXPECT_THAT(failure.text, HasSubstr("timed out"));
    list->ai_next = ws::resolveHost("127.0.0.1", open.port.c_str(), 0, failure).release();
    EXPECT_TRUE(ws::connectToAny(list.get(), ws::monotonicMs() + 1500, failure)) << failure.text;
}
