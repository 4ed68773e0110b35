#include "operator/kept/kept_session.h"

#include "operator/carrier/copy_stream.h"
#include "operator/kept/kept_loop.h"
#include "operator/terminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <string_view>
#include <sys/random.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace keep;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr auto ASK_SOON = milliseconds(500);
constexpr auto ASK_LATER = milliseconds(1000);
constexpr auto SOON = seconds(10);
constexpr auto ANSWER_LIFE = milliseconds(400); // of whether a device is there
constexpr auto LAST_TIME = seconds(10);         // for the last acknowledgements

// Refusals that time does not heal.
constexpr std::array FINAL_KINDS{"denied", "unauthenticated", "not-found", "bad-request",
                                 "not-implemented"};

struct KEPT_LINE_T {
    KEPT_LINE_T(BACK_END_T to, json wanted, seconds answer_time, std::string text)
        : back_end{std::move(to)},
          request(std::move(wanted)), time{answer_time}, target{std::move(text)}
    {
    }

    BACK_END_T back_end;
    json request; // with "keep"
    seconds time;
    std::string target;

    std::mutex mutex;
    std::condition_variable changed;
    // Under the mutex
    Session *carrier = nullptr; // that carries now
    std::string id;
    bool is_greeted = false; // once
    bool is_lost = false;
    bool is_over = false;
    std::optional<Time> lost_at;
    KEPT_END end = KEPT_END::GIVEN_UP;
    REFUSAL refusal{};
    std::string reason;
    double bytes_up = 0;
    double bytes_down = 0;

    // Of the loop's thread
    KEPT_SESSION_T *session = nullptr; // null once it is over
    UniqueFd local;
};
using LinePtr = std::shared_ptr<KEPT_LINE_T>;

void tell(const KEPT_LINE_T &line, const std::string &text)
{
    (void)std::fprintf(stderr, "remote-access: the line to %s %s\n", shown(line.target).c_str(),
                       shown(text).c_str());
}

std::string secondsText(Seconds time)
{
    std::array<char, 32> text;
    (void)std::snprintf(text.data(), text.size(), "%.1f s", time.count());
    return text.data();
}

// ---- events of the loop

void lineGreeted(const LinePtr &line, KEPT_SESSION_T &session)
{
    const std::lock_guard<std::mutex> lock(line->mutex);
    if (!line->is_greeted) session.local = std::move(line->local);
    if (line->is_greeted && line->lost_at)
        tell(*line, "is back after " + secondsText(Clock::now() - *line->lost_at));
    line->is_greeted = true;
    line->lost_at.reset();
    line->changed.notify_all();
}

void lineLost(const LinePtr &line, const char *why)
{
    const std::lock_guard<std::mutex> lock(line->mutex);
    if (!line->lost_at) {
        line->lost_at = Clock::now();
        if (line->is_greeted)
            tell(*line, std::string("is lost (") + why + "); the session is kept for " +
                            std::to_string(KEPT_TIME.count() / 60) + " minutes");
    }
    line->is_lost = true;
    // A carrier that was closed ends by itself, and may still have to say why.
    if (line->carrier != nullptr && why != std::string_view(CARRIER_CLOSED))
        line->carrier->abandon();
    line->changed.notify_all();
}

void lineOver(const LinePtr &line, const KEPT_SESSION_T &session)
{
    const std::lock_guard<std::mutex> lock(line->mutex);
    line->is_over = true;
    line->end = session.end;
    line->refusal = session.refusal;
    line->reason = session.reason;
    line->bytes_up = static_cast<double>(session.stream.incoming.end());
    line->bytes_down = static_cast<double>(session.stream.outgoing.end());
    line->session = nullptr;
    line->changed.notify_all();
}

void giveUp(const LinePtr &line, const std::string &reason)
{
    kept_loop::post([line, reason](KeptSessions &sessions) {
        if (line->session != nullptr) sessions.end(*line->session, KEPT_END::GIVEN_UP, reason);
    });
}

// ---- lines

// Whether it is worth asking for a session. One question serves all sessions of the process.
bool isDeviceThere(const KEPT_LINE_T &line)
{
    static std::mutex mutex;
    static std::map<std::string, std::pair<Time, bool>> known;
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string device = line.request.value("device", "");
    const auto found = known.find(device);
    if (found != known.end() && Clock::now() - found->second.first < ANSWER_LIFE)
        return found->second.second;
    bool is_there = false;
    try {
        const json answer = ask(line.back_end, {{"do", "device"}, {"device", device}}, seconds(10));
        is_there = answer.value("device", json::object()).value("state", "") == "connected";
    } catch (const RequestError &) {
        // The back end is away: that is as good as an answer.
    }
    known[device] = {Clock::now(), is_there};
    return is_there;
}

struct NEW_CARRIER_T {
    std::unique_ptr<Session> session;
    UniqueFd own;
};

// A plain session to the keeper. Throws RequestError.
NEW_CARRIER_T openCarrier(const KEPT_LINE_T &line, bool is_resumed)
{
    std::array<int, 2> pair{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0)
        throw RequestError(std::strerror(errno), false);
    UniqueFd own(pair[0]);
    SESSION_ENDS_T ends{UniqueFd(pair[1]), {}};
    json request = line.request;
    if (is_resumed) request["resume"] = true;
    auto session = openSession(line.back_end, request, ends, line.time);
    return {std::move(session), std::move(own)};
}

void attach(const LinePtr &line, UniqueFd own)
{
    const auto carrier = std::make_shared<UniqueFd>(std::move(own));
    kept_loop::post([line, carrier](KeptSessions &sessions) {
        if (line->session == nullptr) return;
        {
            const std::lock_guard<std::mutex> lock(line->mutex);
            line->is_lost = false;
        }
        sessions.attach(*line->session, std::move(*carrier));
    });
}

void carryLine(const LinePtr &line, NEW_CARRIER_T carrier)
{
    {
        const std::lock_guard<std::mutex> lock(line->mutex);
        line->carrier = carrier.session.get();
        line->id = carrier.session->id();
        line->is_lost = false;
    }
    attach(line, std::move(carrier.own));
    SESSION_COUNTS_T counts;
    const SESSION_END_T end = carrier.session->carry(counts);
    {
        const std::lock_guard<std::mutex> lock(line->mutex);
        line->carrier = nullptr;
    }
    carrier.session.reset(); // with its end of the pair, by which the loop notices
    if (end.is_final) giveUp(line, end.reason);
    std::unique_lock<std::mutex> lock(line->mutex);
    line->changed.wait(lock, [&] { return line->is_lost || line->is_over; });
}

// False when the session is over.
bool waitFor(KEPT_LINE_T &line, milliseconds time)
{
    std::unique_lock<std::mutex> lock(line.mutex);
    return !line.changed.wait_for(lock, time, [&] { return line.is_over; });
}

bool wasGreeted(KEPT_LINE_T &line)
{
    const std::lock_guard<std::mutex> lock(line.mutex);
    return line.is_greeted;
}

// The next line, whenever it can be had; none when the session is over.
NEW_CARRIER_T reopen(const LinePtr &line)
{
    const Time begun = Clock::now();
    for (milliseconds pause{0}; waitFor(*line, pause);
         pause = Clock::now() - begun < SOON ? ASK_SOON : ASK_LATER) {
        if (Clock::now() - begun >= KEPT_TIME) {
            giveUp(line, "its line was lost for " + std::to_string(KEPT_TIME.count()) + " s");
            return {};
        }
        if (!isDeviceThere(*line)) continue;
        try {
            return openCarrier(*line, wasGreeted(*line));
        } catch (const RequestError &refusal) {
            if (std::find(FINAL_KINDS.begin(), FINAL_KINDS.end(), refusal.kind) ==
                FINAL_KINDS.end())
                continue;
            giveUp(line, refusal.what());
            return {};
        }
    }
    return {};
}

void runLines(const LinePtr &line, NEW_CARRIER_T carrier)
{
    try {
        while (carrier.session) {
            carryLine(line, std::move(carrier));
            carrier = reopen(line);
        }
    } catch (const std::exception &fault) {
        giveUp(line, fault.what());
    }
}

// ---- the session

class KeptSession : public Session {
public:
    KeptSession(LinePtr line, SESSION_ENDS_T ends, UniqueFd own)
        : line_{std::move(line)}, id_{line_->id}, ends_{std::move(ends)}, own_{std::move(own)}
    {
    }

    const std::string &id() const override
    {
        return id_;
    }

    bool isKept() const override
    {
        return true;
    }

    void abandon() override
    {
        giveUp(line_, "it was given up");
    }

    SESSION_END_T carry(SESSION_COUNTS_T &counts) override
    {
        if (!own_) {
            ends_.in.reset(); // the loop has its own
            return waitForEnd(nullptr);
        }
        std::thread([this, &counts] {
            (void)copyStream(ends_.in.get(), own_.get(), counts.down);
            (void)::shutdown(own_.get(), SHUT_WR);
        }).detach();
        SESSION_END_T left;
        if (!copyStream(own_.get(), ends_.out.get(), counts.up)) {
            left.output_fault = errno;
            return left;
        }
        // The service's end is the session's.
        (void)::shutdown(own_.get(), SHUT_RDWR);
        const seconds time = LAST_TIME;
        return waitForEnd(&time);
    }

private:
    SESSION_END_T waitForEnd(const seconds *time)
    {
        std::unique_lock<std::mutex> lock(line_->mutex);
        const auto is_over = [this] { return line_->is_over; };
        if (time == nullptr)
            line_->changed.wait(lock, is_over);
        else if (!line_->changed.wait_for(lock, *time, is_over))
            return {.reason = "the last bytes to the service are not acknowledged"};
        return {.reason = line_->end == KEPT_END::WHOLE ? "the service closed" : line_->reason,
                .is_whole = line_->end == KEPT_END::WHOLE,
                .bytes_up = line_->bytes_up,
                .bytes_down = line_->bytes_down};
    }

    LinePtr line_;
    std::string id_;
    SESSION_ENDS_T ends_;
    UniqueFd own_;
};

LinePtr makeLine(const BACK_END_T &back_end, const json &request, seconds time,
                 const std::string &target)
{
    auto line = std::make_shared<KEPT_LINE_T>(back_end, request, time, target);
    SessionKey key{};
    if (::getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size()))
        throw std::runtime_error(std::string("no random bytes: ") + std::strerror(errno));
    line->request["keep"] = keyText(key);
    return line;
}

// The end of the session that is here; none where the client's own socket is used.
UniqueFd takeLocal(KEPT_LINE_T &line, const SESSION_ENDS_T &ends)
{
    if (!ends.out) {
        line.local.reset(::fcntl(ends.in.get(), F_DUPFD_CLOEXEC, 0));
        return {};
    }
    std::array<int, 2> pair{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0)
        throw std::runtime_error(std::strerror(errno));
    line.local.reset(pair[0]);
    return UniqueFd(pair[1]);
}

void start(const LinePtr &line, NEW_CARRIER_T carrier)
{
    SessionKey key{};
    (void)parseKey(line->request.value("keep", ""), key);
    kept_loop::post([line, key](KeptSessions &sessions) {
        line->session = &sessions.add(
            SIDE::OPERATOR, key, {},
            {.greeted = [line](KEPT_SESSION_T &session) { lineGreeted(line, session); },
             .lost = [line](KEPT_SESSION_T &, const char *why) { lineLost(line, why); },
             .over = [line](KEPT_SESSION_T &session) { lineOver(line, session); }});
    });
    const auto first = std::make_shared<NEW_CARRIER_T>(std::move(carrier));
    std::thread([line, first] { runLines(line, std::move(*first)); }).detach();
}

void tellPlain(const std::string &reason)
{
    (void)std::fprintf(stderr, "remote-access: this session is not kept: %s\n",
                       shown(reason).c_str());
}

// False when a plain session is the way.
bool waitForKeeper(const LinePtr &line)
{
    std::unique_lock<std::mutex> lock(line->mutex);
    const bool has_answer =
        line->changed.wait_for(lock, line->time, [&] { return line->is_greeted || line->is_over; });
    if (line->is_greeted) return true;
    const bool is_refused = line->is_over && line->end == KEPT_END::REFUSED;
    const REFUSAL refusal = line->refusal;
    const std::string reason = line->reason;
    lock.unlock();
    if (!has_answer) {
        giveUp(line, "the keeper does not answer");
        throw RequestError(line->target + ": the gateway's keeper does not answer", false);
    }
    if (is_refused && (refusal == REFUSAL::FULL || refusal == REFUSAL::VERSION)) {
        tellPlain(reason);
        return false;
    }
    throw RequestError(reason, false);
}

} // namespace

std::unique_ptr<Session> openKeptSession(const BACK_END_T &back_end, const json &request,
                                         SESSION_ENDS_T &ends, seconds time,
                                         const std::string &target)
{
    const LinePtr line = makeLine(back_end, request, time, target);
    NEW_CARRIER_T carrier;
    try {
        carrier = openCarrier(*line, false);
    } catch (const RequestError &refusal) {
        // A back end of before does not know what is asked for.
        if (refusal.kind == "no-keeper" || refusal.kind == "bad-request") return nullptr;
        if (refusal.kind != "device-refused") throw;
        tellPlain(std::string("the gateway's keeper cannot be reached: ") + refusal.what());
        return nullptr;
    }
    if (!carrier.session->isKept()) return nullptr; // a back end of before
    UniqueFd own = takeLocal(*line, ends);
    start(line, std::move(carrier));
    if (!waitForKeeper(line)) return nullptr;
    return std::make_unique<KeptSession>(line, std::move(ends), std::move(own));
}
