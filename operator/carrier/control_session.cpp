#include "operator/carrier/control_session.h"

#include "operator/carrier/control_client.h"
#include "operator/carrier/copy_stream.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace {

class ControlSession : public Session {
public:
    // own: the end of a pair that is here; none where the back end has the client's socket.
    ControlSession(CONTROL_CLIENT_T client, const json &opened, UniqueFd own,
                   std::chrono::seconds time)
        : client_{std::move(client)}, id_{opened.value("session", "?")},
          is_kept_{opened.value("kept", false)}, own_{std::move(own)}, time_{time}
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

    bool isKept() const override
    {
        return is_kept_;
    }

    void abandon() override
    {
        (void)::shutdown(client_.socket.get(), SHUT_RDWR);
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
        if (!end) return {.reason = "the back end went away"};
        return {.reason = end->value("ended", ""),
                .is_whole = end->value("whole", false),
                .bytes_up = end->value("bytes_up", 0.0),
                .bytes_down = end->value("bytes_down", 0.0),
                .is_final = end->value("final", false)};
    }

    CONTROL_CLIENT_T client_;
    std::string id_;
    bool is_kept_;
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
    auto session =
        std::make_unique<ControlSession>(std::move(client), *opened, std::move(own), time);
    session->takeEnds(ends);
    return session;
}
