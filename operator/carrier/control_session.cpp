#include "operator/carrier/control_session.h"

#include "operator/carrier/control_client.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace {

constexpr std::size_t COPY_SIZE = 65536;

bool writeWhole(int fd, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = ::write(fd, bytes, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

// False when something could not be written.
bool copyStream(int from, int to, std::atomic<std::uint64_t> &count)
{
    std::array<char, COPY_SIZE> bytes;
    for (;;) {
        const ssize_t got = ::read(from, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        if (!writeWhole(to, bytes.data(), static_cast<std::size_t>(got))) return false;
        count += static_cast<std::uint64_t>(got);
    }
}

class ControlSession : public Session {
public:
    // own: the end of a pair that is here; none where the back end has the client's socket.
    ControlSession(CONTROL_CLIENT_T client, std::string id, UniqueFd own, std::chrono::seconds time)
        : client_{std::move(client)}, id_{std::move(id)}, own_{std::move(own)}, time_{time}
    {
    }

    void takeEnds(SESSION_ENDS_T &ends)
    {
        if (own_)
            ends_ = std::move(ends);
        else
            ends.in.reset(); // the back end has its own
    }

    const std::string &id() const override
    {
        return id_;
    }

    SESSION_END_T carry(SESSION_COUNTS_T &counts) override
    {
        if (!own_) return waitForEnd(NO_LIMIT);
        std::thread([this, &counts] {
            (void)copyStream(ends_.in.get(), own_.get(), counts.down);
            (void)::shutdown(own_.get(), SHUT_WR);
        }).detach();
        SESSION_END_T left;
        if (!copyStream(own_.get(), ends_.out.get(), counts.up)) {
            left.output_fault = errno;
            return left;
        }
        // The service's end is the session's; the writer of the input notices it by the end of
        // this process.
        (void)::shutdown(own_.get(), SHUT_RDWR);
        return waitForEnd(time_);
    }

private:
    SESSION_END_T waitForEnd(std::chrono::seconds time)
    {
        const auto end = nextAnswer(client_, time);
        if (!end) return {"the back end went away", false, 0, 0, 0};
        return {end->value("ended", ""), end->value("whole", false), end->value("bytes_up", 0.0),
                end->value("bytes_down", 0.0), 0};
    }

    CONTROL_CLIENT_T client_;
    std::string id_;
    UniqueFd own_;
    SESSION_ENDS_T ends_;
    std::chrono::seconds time_;
};

} // namespace

std::unique_ptr<Session> openControlSession(const std::string &path, const json &request,
                                            SESSION_ENDS_T &ends, std::chrono::seconds time)
{
    UniqueFd own;
    UniqueFd theirs;
    if (ends.out) {
        std::array<int, 2> pair{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0)
            throw std::runtime_error(std::strerror(errno));
        own.reset(pair[0]);
        theirs.reset(pair[1]);
    }
    CONTROL_CLIENT_T client =
        openRequest(path, request, time, theirs ? theirs.get() : ends.in.get());
    theirs.reset();
    const auto opened = nextAnswer(client, time);
    if (!opened) throw RequestError("the back end went away", true);
    auto session = std::make_unique<ControlSession>(
        std::move(client), opened->value("session", "?"), std::move(own), time);
    session->takeEnds(ends);
    return session;
}
