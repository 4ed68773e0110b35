#include "backend/net/listener.h"

#include "backend/net/accept_loop.h"
#include "backend/net/memory.h"
#include "backend/observe/log.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

constexpr auto PAUSE = std::chrono::milliseconds(100);

static constinit LINE_LIMIT_T g_faults{"connections that could not be accepted"};
static constinit LINE_LIMIT_T g_shortages{"shortages", 1};

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        logWarning("the limit of open files cannot be raised to %llu",
                   static_cast<unsigned long long>(limit.rlim_max));
}

// The system gives out the lowest number that is free: one above this means that all below are in
// use.
static int highestDescriptor()
{
    rlimit limit{};
    constexpr rlim_t MOST = std::numeric_limits<int>::max();
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return static_cast<int>(MOST);
    const int most = static_cast<int>(std::min(limit.rlim_cur, MOST));
    return most - std::min(DESCRIPTORS_KEPT_BACK, most / 4) - 1;
}

Listener::Listener(asio::io_context &io, std::shared_ptr<Admission> admission)
    : acceptor_(io), pause_(io), admission_(std::move(admission))
{
}

void Listener::open(const Endpoint &endpoint)
{
    openListener(acceptor_, endpoint); // with as long a queue as the system allows
    highest_ = highestDescriptor();
    acceptNext();
}

void Listener::close()
{
    error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
}

void Listener::acceptAfterPause()
{
    pause_.expires_after(PAUSE);
    pause_.async_wait([self = shared_from_this()](const error_code &stopped) {
        if (stopped || !self->acceptor_.is_open()) return;
        if ((self->hasDescriptors() && takeReserve()) || self->admission_->makeRoom())
            self->acceptNext();
        else
            self->acceptAfterPause();
    });
}

bool Listener::hasDescriptors()
{
    const int lowest_free = fcntl(acceptor_.native_handle(), F_DUPFD_CLOEXEC, 0);
    if (lowest_free >= 0) (void)::close(lowest_free);
    return lowest_free >= 0 && lowest_free <= highest_;
}

// True when the next one may be accepted at once.
bool Listener::take(tcp::socket socket)
{
    const int number = socket.native_handle();
    try {
        admission_->enter(std::move(socket));
    } catch (const std::exception &fault) {
        logLimited(g_faults, LOG_LEVEL::WARNING, "a connection is turned away: %s", fault.what());
        return false;
    }
    if ((number <= highest_ || hasDescriptors()) && takeReserve()) return true;
    logLimited(g_shortages, LOG_LEVEL::WARNING,
               "descriptors or memory have run out: connections have to wait or make room");
    return admission_->makeRoom();
}

void Listener::acceptNext()
{
    acceptor_.async_accept(
        [self = shared_from_this()](const error_code &error, tcp::socket socket) {
            if (error == asio::error::operation_aborted || !self->acceptor_.is_open()) return;
            try {
                if (error)
                    logLimited(g_faults, LOG_LEVEL::WARNING, "cannot accept a connection: %s",
                               error.message().c_str());
                else if (self->take(std::move(socket)))
                    return self->acceptNext();
            } catch (const std::exception &) { // nobody else would accept again
            }
            self->acceptAfterPause();
        });
}

} // namespace backend
