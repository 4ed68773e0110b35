// Whole sessions: a scripted channel against the state machine, the dispatcher and real local
// sockets. Each line of the input is a step; k means a session (a digit, modulo their number):
//   N json    new session       H json    answer to the handshake  A json   account check
//   Rk        release           P         keepalive pong           M text   any message
//   Dk bytes  data down         Zk        the same, 40000 bytes    U text   an unfinished message
//   Sk bytes  data up           Yk        the same, 60000 bytes    Ck       the service closes
//   Bk        stops reading     bk        reads again              Fd       messages come in
//   E         an empty piece    W chars   how the next writes go            pieces of 2^d bytes
//   L         channel is lost   T         ten seconds go by        O        switched off and on
//   V         40000 bytes of an unfinished message                 Xk       service stops receiving
//   Gk        reads slowly      od        the next d openings of the channel fail
// In the text of M and U, $n is a line end and $k the identifier of a session. A service at a port
// divisible by 4 refuses, at 3 modulo 8 it is not there after all, and an odd one takes a moment.
// Under test: src/channel_dispatch.cpp src/service_data.cpp src/remote_access_session_mgr.cpp
// Under test: src/remote_access_proxy_trans.cpp src/channel_state.cpp src/select_pass.cpp
// Under test: src/remote_access_proxy_channel.cpp src/service_connect.cpp
// Under test: src/account.cpp
#include "src/channel_state.h"
#include "src/config.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_thread.h"
#include "src/service_catalogue.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_websocket.h"
#include "utility/handles.h"
#include "utility/text.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <shadow.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr std::size_t MAX_STEPS = 64;
constexpr int MAX_PASSES = 100;                // of a step
constexpr std::size_t MAX_FAILED_OPENINGS = 5; // one more in a row ends the process
constexpr int DESCRIPTORS = 160;               // more than a run ever has open

// A local service's end of a session.
struct PEER_T {
    UniqueFd far;
    int near = -1; // the daemon's descriptor, to find the session
    std::string id;
    std::string to_service, at_service; // what was sent in well-formed messages, what has come
    std::string to_cloud, at_cloud;
    bool reads = true, may_end = false;
    bool down_exact = true, up_exact = true; // nothing was sent that may be lost or is not known
};

struct WORLD_T {
    REMOTE_ACCESS_CONFIG_T record{};
    REMOTE_PROXY_T proxy{};
    UniqueFd channel, channel_far; // never readable: what comes in is scripted
    std::vector<PEER_T> peers;
    std::size_t piece = 0; // 0 = messages come in whole
    bool writes_whole = true;
    std::size_t openings_to_fail = 0, openings_failed = 0; // the latter in a row
};
std::vector<PEER_T> g_connecting; // not in the table yet

UniqueFd connectPair(UniqueFd &far)
{
    int fds[2] = {-1, -1};
    REQUIRE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0);
    far.reset(fds[1]);
    return UniqueFd{fds[0]};
}

} // namespace

// The linker puts these in the places of the C library's functions (--wrap).
extern "C" {
int __real_getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **out);

// The session gets one end of a pair of sockets, wherever it was to be connected to.
int __wrap_connect(int fd, const sockaddr *address, socklen_t)
{
    sockaddr_in target{};
    std::memcpy(&target, address, sizeof target); // the port is at the same place in IPv6
    const unsigned port = ntohs(target.sin_port);
    errno = ECONNREFUSED;
    if (port % 4 == 0) return -1;
    PEER_T peer;
    peer.near = fd;
    if (port % 8 != 3) (void)::dup2(connectPair(peer.far).get(), fd);
    g_connecting.push_back(std::move(peer));
    errno = EINPROGRESS;
    return port % 2 == 0 ? 0 : -1;
}

// Nothing is looked up.
int __wrap_getaddrinfo(const char *host, const char *port, const addrinfo *hints, addrinfo **out)
{
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    return __real_getaddrinfo(host, port, &numeric, out);
}

// Accounts of the script: one with a shadow entry, one without, one locked. The password is "pw".
constexpr char HASH[] = "abzlUXK5ed5rs";
passwd *__wrap_getpwnam(const char *name)
{
    static char shadowed[] = "x";
    static char hash[sizeof HASH];
    static char locked[] = "*";
    static passwd entry{};
    copy_text(hash, HASH);
    const std::string_view user{name};
    entry.pw_passwd = user == "ann" ? shadowed : user == "bob" ? hash : locked;
    return user == "ann" || user == "bob" || user == "eve" ? &entry : nullptr;
}
spwd *__wrap_getspnam(const char *)
{
    static char hash[sizeof HASH];
    static spwd entry{};
    copy_text(hash, HASH);
    entry.sp_pwdp = hash;
    return &entry;
}
}

namespace {

std::string message(int type, std::string_view id, std::string_view token, std::string_view payload)
{
    return "{\"msg_type\": " + std::to_string(type) +
           ",\"payload_len\": " + std::to_string(payload.size()) + ",\"msg_id\": \"" +
           std::string{id} + "\",\"timestamp\":1,\"token\":\"" + std::string{token} +
           "\"}\r\n\r\n" + std::string{payload};
}

// A message comes in, in pieces of the size in force.
void deliver(const WORLD_T &world, std::string_view bytes, bool finished = true)
{
    const std::size_t most = world.piece > 0 ? world.piece : std::max<std::size_t>(bytes.size(), 1);
    do {
        const std::string_view piece = bytes.substr(0, most);
        bytes.remove_prefix(piece.size());
        fake_websocket.incoming.push_back({std::string{piece}, bytes.empty() && finished});
    } while (!bytes.empty());
}

PEER_T *peerOf(WORLD_T &world, std::string_view id)
{
    for (PEER_T &peer : world.peers)
        if (peer.id == id) return &peer;
    return nullptr;
}

std::string_view between(std::string_view text, std::string_view before, char after)
{
    const std::size_t start = text.find(before);
    if (start == std::string_view::npos) return {};
    text.remove_prefix(start + before.size());
    return text.substr(0, text.find(after));
}

// What has gone to the back end: each a whole message, and the services' bytes in them.
void takeSent(WORLD_T &world)
{
    for (const std::string &sent : std::exchange(fake_websocket.sent, {})) {
        const std::size_t end = sent.find("}\r\n\r\n");
        REQUIRE(sent.starts_with("{\"msg_type\": ") && end != std::string::npos);
        const std::string_view header = std::string_view{sent}.substr(0, end);
        const std::string_view payload = std::string_view{sent}.substr(end + 5);
        const std::string_view length = between(header, "\"payload_len\": ", ',');
        if (header.find("\"msg_id\": \"msg_id_for_handshake\"") == std::string_view::npos)
            REQUIRE(length == std::to_string(payload.size()) ||
                    payload.find("}\r\n\r\n") != std::string_view::npos);
        if (between(header, "\"msg_type\": ", ',') != "21") continue;
        PEER_T *const peer = peerOf(world, between(header, "\"token\":\"", '"'));
        REQUIRE(peer != nullptr && length == std::to_string(payload.size()));
        peer->at_cloud += payload;
    }
}

int nameConnected(SESSION_NODE_T *session, void *connecting)
{
    for (PEER_T &peer : *static_cast<std::vector<PEER_T> *>(connecting))
        if (peer.near == session->socket_fd) peer.id = session->session_id;
    return 0;
}

// What the service was sent.
void readAll(PEER_T &peer)
{
    static char bytes[64 * 1024];
    ssize_t count = peer.reads && peer.far ? 1 : 0;
    while (count > 0) {
        count = ::recv(peer.far.get(), bytes, sizeof bytes, 0);
        if (count > 0) peer.at_service.append(bytes, static_cast<std::size_t>(count));
    }
}

void requireAllAtService(PEER_T &peer)
{
    if (peer.down_exact && peer.at_service == peer.to_service) return;
    readAll(peer);
    REQUIRE(!peer.down_exact || !peer.reads || peer.at_service == peer.to_service);
}

// Takes the new sessions, and reads what the services were sent.
void serve(WORLD_T &world)
{
    traverseSessionTable(&world.proxy.session_table, nameConnected, &g_connecting);
    for (PEER_T &peer : std::exchange(g_connecting, {})) {
        peer.up_exact = world.writes_whole;
        peer.down_exact = static_cast<bool>(peer.far);
        peer.may_end = !peer.down_exact;
        if (!peer.id.empty()) world.peers.push_back(std::move(peer)); // else refused after all
    }
    for (PEER_T &peer : world.peers)
        requireAllAtService(peer);
}

// The sessions that have ended, each for a reason: the daemon has closed its end.
void dropEnded(WORLD_T &world)
{
    REQUIRE(getSessionTableSize(&world.proxy.session_table) <= MAX_SESSIONS);
    if (world.peers.size() == getSessionTableSize(&world.proxy.session_table)) return;
    const bool connected = channelState(&world.proxy) == CHANNEL_STATE_CONNECTED;
    std::erase_if(world.peers, [&](const PEER_T &peer) {
        const bool ended = checkOneSessionInTable(&world.proxy.session_table, peer.id.c_str()) != 0;
        REQUIRE(!ended || peer.may_end || !connected);
        return ended;
    });
    REQUIRE(world.peers.size() == getSessionTableSize(&world.proxy.session_table));
}

void pass(WORLD_T &world, int remote_switch = 1)
{
    const int fd = world.channel.get();
    if (channelState(&world.proxy) == CHANNEL_STATE_CLOSED) { // another connection
        const bool fails =
            world.openings_to_fail > 0 && world.openings_failed < MAX_FAILED_OPENINGS;
        fake_websocket = {.has_conn = !fails, .socket_fd = fd};
        world.openings_to_fail -= fails ? 1 : 0;
        world.openings_failed += fails ? 1 : 0;
        world.writes_whole = true;
    }
    fake_websocket.read_pending = fake_websocket.incoming.empty() ? 0 : 1;
    world.record.remote_access_switch.store(remote_switch);
    runChannelState(&world.proxy, remote_switch);
    if (channelState(&world.proxy) != CHANNEL_STATE_CLOSED) world.openings_failed = 0;
    serve(world);
    takeSent(world);
    dropEnded(world);
}

// Passes until one finds nothing to do: that one waits.
void settle(WORLD_T &world)
{
    std::int64_t before = 0;
    int passes = 0;
    do {
        before = fake_clock::seconds();
        pass(world);
    } while (++passes < MAX_PASSES &&
             (fake_clock::seconds() == before || !fake_websocket.incoming.empty()));
    REQUIRE(passes < MAX_PASSES);
    for (const PEER_T &peer : world.peers) {
        // The session of a service that is gone has ended; waits for the channel take its turn.
        REQUIRE(peer.far || !world.writes_whole);
        REQUIRE(!peer.up_exact || peer.at_cloud == peer.to_cloud);
    }
}

bool isListening(const WORLD_T &world)
{
    return channelState(&world.proxy) == CHANNEL_STATE_CONNECTED && fake_websocket.ok &&
           fake_websocket.incoming.empty() && !world.proxy.message_lost &&
           getBufferDataLength(&world.proxy.recv_buffer) == 0;
}

void sendDown(WORLD_T &world, PEER_T &peer, std::string_view bytes)
{
    const std::string text = message(MSG_TYPE_DATA_DOWN, "m1", peer.id, bytes);
    if (!isListening(world) || text.size() > MESSAGE_BUFFER_SIZE || !peer.reads || !peer.far)
        peer.down_exact = false;
    peer.to_service += bytes;
    deliver(world, text);
}

void sendUp(PEER_T &peer, std::string_view bytes)
{
    if (!peer.far || bytes.empty()) return;
    const ssize_t count = ::send(peer.far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count > 0) peer.to_cloud += bytes.substr(0, static_cast<std::size_t>(count));
}

std::string expanded(const WORLD_T &world, std::string_view text)
{
    std::string whole;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        const bool names = next >= '0' && next <= '9' && !world.peers.empty();
        if (text[i] != '$' || (next != 'n' && !names)) {
            whole += text[i];
            continue;
        }
        ++i;
        if (next == 'n') whole += "\r\n";
        if (names)
            whole += world.peers[static_cast<std::size_t>(next - '0') % world.peers.size()].id;
    }
    return whole;
}

// How the next writes go: whole, in part, not at all for now, or never again.
void scriptWrites(WORLD_T &world, std::string_view chars)
{
    world.writes_whole = false;
    for (PEER_T &peer : world.peers)
        peer.up_exact = false;
    for (const char c : chars.substr(0, 16)) {
        if (c == 'p') fake_websocket.sends.push_back({10, 20});
        if (c == 'b') fake_websocket.sends.push_back({-2, 30});
        if (c == 'c') fake_websocket.completions.push_back({5, 5});
        if (c == 'd') fake_websocket.completions.push_back({30, 0});
        if (c == 'x') fake_websocket.sends.push_back({-1, 0, false});
    }
}

// A step on one session.
void stepOfSession(WORLD_T &world, char what, PEER_T &peer, std::string_view bytes)
{
    static const std::string big(60000, 'z');
    const int smallest = 1;
    switch (what) {
    case 'R':
        peer.may_end = true;
        return deliver(world, message(MSG_TYPE_RELEASE_SESSION, "m2", peer.id, ""));
    case 'D':
        return sendDown(world, peer, bytes);
    case 'Z':
        return sendDown(world, peer, std::string_view{big}.substr(0, 40000));
    case 'S':
        return sendUp(peer, bytes);
    case 'Y':
        return sendUp(peer, big);
    case 'C':
        peer.may_end = true;
        return peer.far.reset();
    case 'B':
        peer.reads = peer.down_exact = false;
        [[fallthrough]];
    case 'G':
        (void)::setsockopt(peer.near, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
        return;
    case 'b':
        peer.reads = true;
        return;
    case 'X':
        peer.down_exact = false;
        peer.may_end = true;
        if (peer.far) (void)::shutdown(peer.far.get(), SHUT_RD);
        return;
    default:
        return;
    }
}

void step(WORLD_T &world, std::string_view line)
{
    const char what = line[0];
    const std::string_view rest = line.substr(1);
    const auto digit = static_cast<std::size_t>(rest.empty() ? 0 : (rest[0] - '0') & 0xff);
    switch (what) {
    case 'N':
        return deliver(world, message(MSG_TYPE_NEW_SESSION, "m3", "", rest));
    case 'H':
        return deliver(world, message(MSG_TYPE_RESPONSE, HANDSHAKE_MSG_ID, "", rest));
    case 'A':
        return deliver(world, message(MSG_TYPE_VERIFY_ACCOUNT, "m4", "", rest));
    case 'P':
        return deliver(world, message(MSG_TYPE_KEEPALIVE_PONG, "m5", "", ""));
    case 'M':
    case 'U':
        for (PEER_T &peer : world.peers) {
            peer.down_exact = false;
            peer.may_end = true;
        }
        return deliver(world, expanded(world, rest), what == 'M');
    case 'V':
        return deliver(world, std::string(40000, 'v'), false);
    case 'o':
        world.openings_to_fail = std::min(digit, MAX_FAILED_OPENINGS);
        return;
    case 'F':
        world.piece = digit < 16 ? std::size_t{1} << digit : 0;
        return;
    case 'E':
        fake_websocket.incoming.push_back({"", true, digit % 2 == 0});
        return;
    case 'W':
        return scriptWrites(world, rest);
    case 'L':
        fake_websocket.ok = false;
        fake_websocket.socket_fd = -1;
        return;
    case 'T':
        return fake_clock::advance(10);
    case 'O':
        return pass(world, 0);
    default:
        if (!world.peers.empty())
            stepOfSession(world, what, world.peers[digit % world.peers.size()],
                          rest.substr(std::min<std::size_t>(rest.size(), 1)));
    }
}

int openDescriptors()
{
    int count = 0;
    for (int fd = 0; fd < DESCRIPTORS; ++fd)
        if (::fcntl(fd, F_GETFD) != -1) ++count;
    return count;
}

void start(WORLD_T &world)
{
    fake_clock::reset();
    fake_clock::onSleep([&world] { // while the daemon naps, the services read
        for (PEER_T &peer : world.peers)
            readAll(peer);
    });
    std::srand(1); // the same identifiers in every run
    fake_websocket = {};
    list_init(&world.record.service_list);
    copy_text(world.record.device_secret, "secret1");
    world.record.remote_access_switch.store(1);
    world.record.tls_type = 1;
    world.record.trans_timeout = 100;
    world.record.ping_period = 20;
    world.record.tcp_keepalive_period = 5;
    REQUIRE(initRemoteProxyResource(&world.proxy, &world.record) == 0);
    world.channel = connectPair(world.channel_far);
    pass(world, 0); // forgets failed openings
    pass(world);
    deliver(world, message(MSG_TYPE_RESPONSE, HANDSHAKE_MSG_ID, "", "{\"code\":0}"));
    pass(world);
    REQUIRE(channelState(&world.proxy) == CHANNEL_STATE_CONNECTED);
}

void finish(WORLD_T &world)
{
    pass(world, 0);
    fake_clock::onSleep(nullptr);
    REQUIRE(channelState(&world.proxy) == CHANNEL_STATE_CLOSED && world.peers.empty());
    freeDataBuffer(&world.proxy.recv_buffer);
    freeDataBuffer(&world.proxy.send_buffer);
    std::free(world.proxy.services_info.load());
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // Broken pipes are errors of send alone; the account check speaks on standard output.
    static const bool prepared =
        ::signal(SIGPIPE, SIG_IGN) != SIG_ERR && std::freopen("/dev/null", "w", stdout) != nullptr;
    REQUIRE(prepared);
    const int open_before = openDescriptors();
    {
        const auto world = std::make_unique<WORLD_T>();
        start(*world);
        std::string_view input = viewOf(data, size);
        for (std::size_t steps = 0; !input.empty() && steps < MAX_STEPS; ++steps) {
            const std::size_t end = std::min(input.find('\n'), input.size());
            if (end > 0) step(*world, input.substr(0, end));
            settle(*world);
            input.remove_prefix(std::min(end + 1, input.size()));
        }
        finish(*world);
    }
    REQUIRE(openDescriptors() == open_before);
    return 0;
}
