#include "platform/nopoll/net_connect.h"

#include "platform/nopoll/wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <resolv.h>
#include <sys/eventfd.h>

namespace ws {
namespace {

// Shared by the caller and the thread that looks the name up; the last of the two releases it.
struct LOOKUP_T {
    char host[HOST_TEXT_SIZE] = {};
    char port[PORT_TEXT_SIZE] = {};
    UniqueFd finished; // eventfd: readable once `done`
    AddressListPtr found;
    int result = EAI_AGAIN;
    std::atomic<bool> done{false};
    std::atomic<int> owners{1};
};

void dropLookup(LOOKUP_T *lookup)
{
    if (lookup->owners.fetch_sub(1) == 1) delete lookup;
}
using LookupPtr = std::unique_ptr<LOOKUP_T, Releaser<dropLookup>>;

int lookUp(const char *host, const char *port, int flags, AddressListPtr &found)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo *list = nullptr;
    const int result = getaddrinfo(host, port, &hints, &list);
    found.reset(list);
    return result;
}

void *lookUpInThread(void *argument)
{
    const LookupPtr lookup{static_cast<LOOKUP_T *>(argument)};
    // Two seconds a server instead of five: a second name server gets its turn within the deadline.
    constexpr int SECONDS_PER_SERVER = 2;
    if (res_init() == 0) {
        _res.retrans = std::min(_res.retrans, SECONDS_PER_SERVER);
        _res.options |= RES_NORELOAD; // else the library puts its own time back, though not always
    }
    lookup->result = lookUp(lookup->host, lookup->port, 0, lookup->found);
    lookup->done.store(true, std::memory_order_release);
    eventfd_write(lookup->finished.get(), 1);
    return nullptr;
}

bool startLookup(LOOKUP_T &lookup)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    sigset_t all; // signals are for the threads of the program, but a fault is this one's own
    sigfillset(&all);
    sigdelset(&all, SIGSEGV);
    pthread_attr_setsigmask_np(&attributes, &all);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    lookup.owners.store(2);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, lookUpInThread, &lookup) == 0;
    if (!started) lookup.owners.store(1);
    pthread_attr_destroy(&attributes);
    return started;
}

bool connectTo(const addrinfo &address, int64_t deadline_ms, UniqueFd &connection)
{
    connection.reset(socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                            address.ai_protocol));
    if (!connection) return false;
    const int on = 1; // messages are written whole; waiting for more would only delay them
    setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0) return true;
    if (errno != EINPROGRESS && errno != EINTR) return false;
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (pollUntil(connection.get(), POLLOUT, deadline_ms) != 0)
        getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    return error == 0;
}

} // namespace

bool isAddress(const char *host)
{
    in6_addr address;
    return inet_pton(AF_INET, host, &address) == 1 || inet_pton(AF_INET6, host, &address) == 1;
}

AddressListPtr resolveHost(const char *host, const char *port, int64_t deadline_ms,
                           FAILURE_T &failure)
{
    AddressListPtr found;
    if (lookUp(host, port, AI_NUMERICHOST, found) == 0) return found;
    const LookupPtr lookup{new (std::nothrow) LOOKUP_T};
    if (lookup) lookup->finished.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!lookup || !lookup->finished) {
        fail(failure, "no memory or descriptor left to resolve %s", host);
        return nullptr;
    }
    (void)std::snprintf(lookup->host, sizeof lookup->host, "%s", host);
    (void)std::snprintf(lookup->port, sizeof lookup->port, "%s", port);
    if (!startLookup(*lookup)) {
        fail(failure, "no thread left to resolve %s", host);
        return nullptr;
    }
    pollUntil(lookup->finished.get(), POLLIN, deadline_ms);
    if (!lookup->done.load(std::memory_order_acquire))
        fail(failure, "cannot resolve %s: no answer from the name service in time", host);
    else if (lookup->result != 0)
        fail(failure, "cannot resolve %s: %s", host, gai_strerror(lookup->result));
    else
        return std::move(lookup->found);
    return nullptr;
}

UniqueFd connectToAny(const addrinfo *addresses, int64_t deadline_ms, FAILURE_T &failure)
{
    int left = 0;
    for (const addrinfo *address = addresses; address; address = address->ai_next)
        ++left;
    for (const addrinfo *address = addresses; address; address = address->ai_next, --left) {
        const int64_t now = monotonicMs();
        UniqueFd connection;
        if (connectTo(*address, now + (deadline_ms - now) / left, connection)) return connection;
        const char *reason = strerrordesc_np(errno);
        char text[NI_MAXHOST] = "?";
        char port[NI_MAXSERV] = "?";
        getnameinfo(address->ai_addr, address->ai_addrlen, text, sizeof text, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV);
        fail(failure, "cannot connect to %.64s port %s: %s", text, port,
             reason ? reason : "unknown error");
    }
    return UniqueFd{};
}

} // namespace ws
