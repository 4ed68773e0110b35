// Keeps many connections to a back end busy, each of the same kind, and renews every one that ends.
// One thread and plain OpenSSL: it shares the machine with the back end that it attacks.
//
// Usage: flood KIND PORT COUNT SECONDS ADDRESS [ADDRESSES]
// ADDRESS is where the connections come from; with ADDRESSES, from so many after it in turn. Prints
// one JSON object after SECONDS, or at SIGTERM. The kind "fleet" is no attack: COUNT devices come
// in, each tries until it is in, with the daemon's time-outs and pauses, and the program ends once
// all are.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What a connection does once it stands: TCP, or TLS where the kind has it.
enum class DO { RESET, WAIT, SEND, TRICKLE, PUMP, HANDSHAKE };
enum class SIGNED { NOT, WRONG, RIGHT };

struct KIND_T {
    std::string_view name;
    bool has_tls;
    DO deed;
    std::string text; // that it sends: whole, one byte at a time, or its end without end
    SIGNED sign = SIGNED::NOT;
};

const std::string UPGRADE = "GET / HTTP/1.1\r\nHost: cloud.test\r\nUpgrade: websocket\r\n"
                            "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
const std::string HELLO("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);

// Of a message without an end, as many as one TLS record takes: it is sent whole or not at all.
std::string emptyFragments()
{
    std::string text;
    while (text.size() + 6 <= 16384)
        text.append("\0\x80\0\0\0\0", 6);
    return text;
}

const std::array KINDS{
    KIND_T{"silent", false, DO::WAIT, {}},
    KIND_T{"reset", false, DO::RESET, {}},
    KIND_T{"slow-hello", false, DO::TRICKLE, HELLO + std::string(501, '\1')},
    KIND_T{"tls-silent", true, DO::WAIT, {}},
    KIND_T{"garbage", true, DO::SEND, std::string(400, '\2') + "\r\n\r\n"},
    KIND_T{"half-upgrade", true, DO::SEND, UPGRADE},
    KIND_T{"long-header", true, DO::SEND, UPGRADE + "X-Long: " + std::string(1 << 20, 'x')},
    KIND_T{"slow-header", true, DO::TRICKLE, UPGRADE + "X-Slow: " + std::string(4000, 'x')},
    KIND_T{"fragments", true, DO::PUMP, emptyFragments()},
    KIND_T{"unknown", true, DO::HANDSHAKE, "stranger", SIGNED::WRONG},
    KIND_T{"wrong", true, DO::HANDSHAKE, "fleet", SIGNED::WRONG},
    KIND_T{"unsigned", true, DO::HANDSHAKE, "fleet", SIGNED::NOT},
    KIND_T{"fleet", true, DO::HANDSHAKE, "fleet", SIGNED::RIGHT},
};

constexpr milliseconds TRICKLE_PERIOD{1900}, PASS{2};
constexpr milliseconds TLS_TIME{10000}, ANSWER_TIME{3000}, PAUSE{1000}; // the daemon's
constexpr std::size_t OPENED_PER_PASS = 20; // and no pass is shorter than its time

enum class STATE { IDLE, CONNECTING, TLS, WAITING, TRICKLING, PUMPING, UPGRADING, SIGNING, IN };

struct CLIENT_T {
    std::size_t number = 0;
    int fd = -1; // owned
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl{nullptr, SSL_free};
    STATE state = STATE::IDLE;
    Clock::time_point due{}; // of the next try, byte or time-out
    std::size_t sent = 0;
    unsigned failures = 0;
    std::string got;
};

struct COUNTS_T {
    std::uint64_t opened = 0, established = 0, over_tls = 0, ended = 0, refused = 0, accepted = 0;
};

const KIND_T *g_kind = nullptr;
sockaddr_in g_server{}, g_from{};
std::uint32_t g_addresses = 1;
SSL_CTX *g_context = nullptr;
int g_poll = -1;
volatile std::sig_atomic_t g_is_over = 0;
COUNTS_T g_counts;

std::string frame(const std::string &text)
{
    const auto size = static_cast<std::uint16_t>(text.size());
    const char head[] = {'\x82', '\xfe', static_cast<char>(size >> 8),
                         static_cast<char>(size & 255)};
    return std::string(head, sizeof head) + std::string(4, '\0') + text; // a mask of zeros
}

std::string signature(const std::string &name, const std::string &text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    std::size_t size = 0;
    const std::string secret = "secret-of-" + name;
    (void)EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, secret.data(), secret.size(),
                    reinterpret_cast<const unsigned char *>(text.data()), text.size(),
                    digest.data(), digest.size(), &size);
    std::string sign;
    for (std::size_t i = 0; i < size; i++) {
        char digits[3];
        (void)snprintf(digits, sizeof digits, "%02x", digest[i]);
        sign += digits;
    }
    return sign;
}

std::string handshake(const CLIENT_T &client)
{
    const std::string name = g_kind->text + "-" + std::to_string(client.number);
    const std::string now = std::to_string(time(nullptr));
    const std::string sign = g_kind->sign == SIGNED::RIGHT
                                 ? signature(name, "clientIdquorvex_iotdeviceName" + name +
                                                       "productKeypk1timestamp" + now)
                                 : std::string(64, '0');
    std::string payload = R"({"uuid": "quorvex_iot","product_key": "pk1","device_name": ")" + name +
                          R"(","version":"2.1","IP":"","MAC":"","token":"", "service_meta": [])";
    if (g_kind->sign != SIGNED::NOT)
        payload += R"(,"signmethod": "hmacsha256", "sign": ")" + sign + '"';
    payload += '}';
    return frame(R"({"msg_type": 1,"payload_len": )" + std::to_string(payload.size()) +
                 R"(,"msg_id": "msg_id_for_handshake","timestamp":)" + now +
                 ",\"token\":\"\"}\r\n\r\n" + payload);
}

bool is_fleet()
{
    return g_kind->sign == SIGNED::RIGHT;
}

void end(CLIENT_T &client, bool with_reset)
{
    const linger reset{1, 0};
    if (with_reset) (void)setsockopt(client.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    client.ssl.reset();
    close(client.fd);
    client.fd = -1;
    client.state = STATE::IDLE;
    client.due = is_fleet() ? Clock::now() + PAUSE : Clock::time_point{};
    client.failures++;
    g_counts.ended++;
}

void await(CLIENT_T &client, std::uint32_t events, int operation)
{
    epoll_event event{events, {.ptr = &client}};
    (void)epoll_ctl(g_poll, operation, client.fd, &event);
}

void start(CLIENT_T &client)
{
    client.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in from = g_from;
    from.sin_addr.s_addr = htonl(ntohl(from.sin_addr.s_addr) +
                                 static_cast<std::uint32_t>(g_counts.opened % g_addresses));
    const int on = 1; // the port is chosen with the connection: more than the range has, in all
    (void)setsockopt(client.fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    (void)setsockopt(client.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (client.fd < 0 || bind(client.fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0) {
        perror("flood: socket");
        exit(1);
    }
    g_counts.opened++;
    (void)connect(client.fd, reinterpret_cast<sockaddr *>(&g_server), sizeof g_server);
    await(client, EPOLLOUT, EPOLL_CTL_ADD);
    client.state = STATE::CONNECTING;
    client.due = Clock::now() + TLS_TIME;
    client.sent = 0;
    client.got.clear();
}

void send(CLIENT_T &client, std::string_view text)
{
    if (client.ssl)
        (void)SSL_write(client.ssl.get(), text.data(), static_cast<int>(text.size()));
    else
        (void)::send(client.fd, text.data(), text.size(), MSG_NOSIGNAL);
}

void act(CLIENT_T &client)
{
    client.state = STATE::WAITING;
    client.due = Clock::time_point::max();
    if (g_kind->deed == DO::SEND) send(client, g_kind->text);
    if (g_kind->deed == DO::RESET) end(client, true);
    if (g_kind->deed == DO::TRICKLE) client.state = STATE::TRICKLING, client.due = Clock::now();
    if (g_kind->deed == DO::HANDSHAKE || g_kind->deed == DO::PUMP) {
        send(client, UPGRADE + "\r\n");
        client.state = STATE::UPGRADING;
        client.due = Clock::now() + ANSWER_TIME;
    }
}

void shakeHands(CLIENT_T &client)
{
    const int result = SSL_do_handshake(client.ssl.get());
    if (result == 1) {
        g_counts.over_tls++;
        return act(client);
    }
    const int error = SSL_get_error(client.ssl.get(), result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) end(client, false);
}

void connected(CLIENT_T &client)
{
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(client.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) return end(client, false);
    g_counts.established++;
    await(client, EPOLLIN | EPOLLRDHUP, EPOLL_CTL_MOD);
    if (!g_kind->has_tls) return act(client);
    client.ssl.reset(SSL_new(g_context));
    SSL_set_fd(client.ssl.get(), client.fd);
    SSL_set_connect_state(client.ssl.get());
    client.state = STATE::TLS;
    shakeHands(client);
}

// False once the peer has ended the connection.
bool receive(CLIENT_T &client)
{
    std::array<char, 4096> bytes{};
    while (true) {
        const auto count =
            client.ssl ? SSL_read(client.ssl.get(), bytes.data(), static_cast<int>(bytes.size()))
                       : static_cast<int>(recv(client.fd, bytes.data(), bytes.size(), 0));
        if (count > 0) {
            client.got.append(bytes.data(), static_cast<std::size_t>(count));
            continue;
        }
        return client.ssl ? SSL_get_error(client.ssl.get(), count) == SSL_ERROR_WANT_READ
                          : count < 0 && errno == EAGAIN;
    }
}

void advance(CLIENT_T &client)
{
    if (client.state == STATE::CONNECTING) return connected(client);
    if (client.state == STATE::TLS) return shakeHands(client);
    const bool is_open = receive(client);
    if (client.state == STATE::PUMPING && is_open) return send(client, g_kind->text);
    if (client.state == STATE::UPGRADING && client.got.find("\r\n\r\n") != std::string::npos) {
        client.got.clear();
        if (g_kind->deed == DO::PUMP) {
            send(client, std::string("\2\x80\0\0\0\0", 6)); // the start of a message
            client.state = STATE::PUMPING;
            client.due = Clock::time_point::max();
            return await(client, EPOLLIN | EPOLLOUT, EPOLL_CTL_MOD);
        }
        client.state = STATE::SIGNING;
        client.due = Clock::now() + ANSWER_TIME;
        send(client, handshake(client));
    }
    const std::size_t code =
        client.state == STATE::SIGNING ? client.got.find("\"code\":") : std::string::npos;
    if (code != std::string::npos && strtol(client.got.c_str() + code + 7, nullptr, 10) == 0) {
        client.state = STATE::IN;
        client.due = Clock::time_point::max();
        g_counts.accepted++;
    } else if (code != std::string::npos) {
        g_counts.refused++;
        return end(client, true);
    }
    if (!is_open) end(client, false);
}

void onTime(CLIENT_T &client)
{
    if (client.state == STATE::IDLE) return start(client);
    if (client.state == STATE::TRICKLING) {
        client.due = Clock::now() + TRICKLE_PERIOD;
        return send(client, std::string_view(g_kind->text).substr(client.sent++, 1));
    }
    if (is_fleet() || g_kind->deed == DO::HANDSHAKE) end(client, true); // no answer in time
}

void runPass(std::vector<CLIENT_T> &clients)
{
    std::array<epoll_event, 512> events{};
    const int count = epoll_wait(g_poll, events.data(), events.size(), PASS.count());
    for (int i = 0; i < count; i++) {
        auto &client = *static_cast<CLIENT_T *>(events[static_cast<std::size_t>(i)].data.ptr);
        if (client.fd >= 0) advance(client);
    }
    static Clock::time_point next{};
    const Clock::time_point now = Clock::now();
    if (now < next) return;
    next = now + PASS;
    std::size_t opened = 0;
    for (CLIENT_T &client : clients) {
        if (client.due > now) continue;
        if (client.state == STATE::IDLE && opened++ >= OPENED_PER_PASS && !is_fleet()) continue;
        onTime(client);
    }
}

void report(const std::vector<CLIENT_T> &clients, double seconds)
{
    unsigned most = 0;
    std::uint64_t sum = 0;
    for (const CLIENT_T &client : clients) {
        most = std::max(most, client.failures);
        sum += client.failures;
    }
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto of = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    printf(R"({"seconds": %.2f, "cpu": %.2f, "opened": %ju, "established": %ju, "over_tls": %ju, )"
           R"("ended": %ju, "refused": %ju, "accepted": %ju, "failures_most": %u, )"
           R"("failures_mean": %.2f})"
           "\n",
           seconds, of(used.ru_utime) + of(used.ru_stime), g_counts.opened, g_counts.established,
           g_counts.over_tls, g_counts.ended, g_counts.refused, g_counts.accepted, most,
           static_cast<double>(sum) / static_cast<double>(clients.size()));
}

} // namespace

int main(int argc, char **argv)
{
    for (const KIND_T &kind : KINDS) {
        if (argc >= 6 && kind.name == argv[1]) g_kind = &kind;
    }
    if (g_kind == nullptr) {
        (void)fprintf(stderr, "usage: flood KIND PORT COUNT SECONDS ADDRESS [ADDRESSES]\n");
        return 2;
    }
    g_server.sin_family = g_from.sin_family = AF_INET;
    g_server.sin_port = htons(static_cast<std::uint16_t>(strtoul(argv[2], nullptr, 10)));
    g_server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)inet_pton(AF_INET, argv[5], &g_from.sin_addr);
    g_addresses = argc > 6 ? static_cast<std::uint32_t>(strtoul(argv[6], nullptr, 10)) : 1;
    g_context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_session_cache_mode(g_context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(g_context, SSL_MODE_ENABLE_PARTIAL_WRITE);
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGTERM, [](int) { g_is_over = 1; });
    g_poll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<CLIENT_T> clients(strtoul(argv[3], nullptr, 10));
    for (std::size_t i = 0; i < clients.size(); i++)
        clients[i].number = i;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point last = begin + std::chrono::seconds(strtol(argv[4], nullptr, 10));
    const auto all_in = [&clients] {
        return std::all_of(clients.begin(), clients.end(),
                           [](const CLIENT_T &client) { return client.state == STATE::IN; });
    };
    while (g_is_over == 0 && Clock::now() < last && !(is_fleet() && all_in()))
        runPass(clients);
    report(clients, std::chrono::duration<double>(Clock::now() - begin).count());
}
