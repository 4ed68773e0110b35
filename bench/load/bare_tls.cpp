#include "bench/load/bare_tls.h"

#include "bench/load/support.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <openssl/ssl.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>

namespace {

constexpr std::size_t MESSAGE = 50172; // what the daemon sends up at most at a time
constexpr double WARM_UP_S = 0.1;

using SslPtr = std::unique_ptr<SSL, Releaser<SSL_free>>;
using SslContextPtr = std::unique_ptr<SSL_CTX, Releaser<SSL_CTX_free>>;
enum class PHASE { WARM_UP, MEASURED, ENDED };
using Phase = std::atomic<PHASE>;

SslContextPtr makeContext(const SSL_METHOD *method, const BARE_CASE_T &bare)
{
    SslContextPtr context{SSL_CTX_new(method)};
    require(context && SSL_CTX_set_ciphersuites(context.get(), bare.suite) == 1 &&
                SSL_CTX_use_certificate_chain_file(context.get(), bare.certificate) == 1 &&
                SSL_CTX_use_PrivateKey_file(context.get(), bare.key, SSL_FILETYPE_PEM) == 1,
            "cipher suite, certificate or key");
    return context;
}

struct END_T {
    int fd;
    SSL *ssl; // null: plain
    const Phase *phase;
    int cpu; // -1: any
    double cpu_s = 0;
    double seconds = 0;
    double gigabytes = 0;
};

ssize_t sendBare(const END_T &end, char *message)
{
    const ssize_t count = end.ssl != nullptr ? SSL_write(end.ssl, message, MESSAGE)
                                             : ::send(end.fd, message, MESSAGE, MSG_NOSIGNAL);
    require(count > 0, "bare send");
    return count;
}

ssize_t receiveBare(const END_T &end, char *message)
{
    const ssize_t count = end.ssl != nullptr ? SSL_read(end.ssl, message, MESSAGE)
                                             : ::recv(end.fd, message, MESSAGE, 0);
    require(count > 0 || *end.phase == PHASE::ENDED, "bare receive");
    return std::max<ssize_t>(count, 0);
}

void pinTo(int cpu)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    require(::sched_setaffinity(0, sizeof cpus, &cpus) == 0, "processor");
}

// Each end counts what its own thread spends once it is warm, until all has been carried.
void runEnd(END_T &end, bool sends)
{
    std::vector<char> message(MESSAGE, 'x');
    if (end.cpu >= 0) pinTo(end.cpu);
    require(end.ssl == nullptr || (sends ? SSL_accept(end.ssl) : SSL_connect(end.ssl)) == 1,
            "TLS handshake");
    double start = 0;
    double cpu = 0;
    for (ssize_t count = 1; count > 0 && !(sends && *end.phase == PHASE::ENDED);) {
        if (start == 0 && *end.phase == PHASE::MEASURED) {
            start = now();
            cpu = readClock(CLOCK_THREAD_CPUTIME_ID);
        }
        count = sends ? sendBare(end, message.data()) : receiveBare(end, message.data());
        if (start > 0) end.gigabytes += static_cast<double>(count) / 1e9;
    }
    end.cpu_s = readClock(CLOCK_THREAD_CPUTIME_ID) - cpu;
    end.seconds = now() - start;
    require(start > 0 && end.gigabytes > 0, "nothing was carried");
    if (sends) (void)::shutdown(end.fd, SHUT_WR);
}

struct COST_T {
    double gateway; // CPU seconds per GB
    double mbs;
};

COST_T measureConnection(const BARE_CASE_T &bare, bool gateway_sends, SSL_CTX *server,
                         SSL_CTX *client)
{
    const UniqueFd listener = listenOn("0");
    sockaddr_in address{};
    socklen_t size = sizeof address;
    (void)::getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &size);
    const UniqueFd to = connectTo(address);
    const UniqueFd from = acceptFrom(listener);
    const SslPtr from_ssl{server != nullptr ? SSL_new(server) : nullptr};
    const SslPtr to_ssl{client != nullptr ? SSL_new(client) : nullptr};
    require(server == nullptr || (SSL_set_fd(from_ssl.get(), from.get()) == 1 &&
                                  SSL_set_fd(to_ssl.get(), to.get()) == 1),
            "TLS");

    Phase phase{PHASE::WARM_UP};
    END_T sender{from.get(), from_ssl.get(), &phase, gateway_sends ? bare.gateway_cpu : -1};
    END_T receiver{to.get(), to_ssl.get(), &phase, gateway_sends ? -1 : bare.gateway_cpu};
    std::thread sending(runEnd, std::ref(sender), true);
    std::thread receiving(runEnd, std::ref(receiver), false);
    sleepFor(WARM_UP_S);
    phase = PHASE::MEASURED;
    sleepFor(bare.window_s);
    phase = PHASE::ENDED;
    sending.join();
    receiving.join();
    const END_T &gateway = gateway_sends ? sender : receiver;
    return {gateway.cpu_s / gateway.gigabytes, receiver.gigabytes * 1e3 / receiver.seconds};
}

} // namespace

void measureBareTls(const BARE_CASE_T &bare)
{
    const SslContextPtr server = makeContext(TLS_server_method(), bare);
    const SslContextPtr client = makeContext(TLS_client_method(), bare);
    const COST_T tls = measureConnection(bare, bare.down, server.get(), client.get());
    const COST_T plain = measureConnection(bare, !bare.down, nullptr, nullptr);
    const char *const name = bare.down ? "down1" : "up1";
    report(std::string("mbs_") + name, tls.mbs);
    report(std::string("cpu_") + name, tls.gateway + plain.gateway);
}
