#include "keeper/keeper.h"

#include "keep/byte_order.h"
#include "keep/crc32c.h"
#include "utility/socket_owner.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace keeper {

using namespace keep;

namespace {

constexpr auto PASS_TIME = std::chrono::milliseconds(1000);
constexpr auto INCOMER_TIME = std::chrono::seconds(10);
constexpr auto CONNECT_TIME = std::chrono::seconds(5);
constexpr auto REFUSED_TIME = std::chrono::seconds(5);
constexpr auto TURNED_AWAY_PAUSE = std::chrono::seconds(10);
constexpr std::size_t INCOMER_BYTES = OPENING_MAX + HEADER_SIZE + 256;
constexpr std::size_t REMEMBERED_MAX = 256; // sessions that are over
constexpr char CLOSED_BY_BACK_END[] = "it was closed, or is allowed no more";

std::string secondsText(Clock::duration time)
{
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

// Control characters of a name from outside end no line of the log.
std::string plain(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; },
        '?');
    return text;
}

UniqueFd startConnect(const KEPT_SERVICE_T &service)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(service.port);
    if (::inet_pton(AF_INET, service.ip.c_str(), &address.sin_addr) != 1) {
        errno = EADDRNOTAVAIL;
        return {};
    }
    UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd) return fd;
    const int on = 1;
    (void)::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const auto *const to = reinterpret_cast<const sockaddr *>(&address);
    if (::connect(fd.get(), to, sizeof address) != 0 && errno != EINPROGRESS) fd.reset();
    return fd;
}

void tellAlive(int fd)
{
    const int on = 1; // a service behind another machine may vanish without a word
    (void)::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

} // namespace

Keeper::Keeper(KEEPER_SETTINGS_T settings, UniqueFd listener)
    : settings_{std::move(settings)}, listener_{std::move(listener)}, sessions_{settings_.budget}
{
}

void Keeper::replaceServices(std::vector<KEPT_SERVICE_T> services, std::string host)
{
    settings_.services = std::move(services);
    settings_.host = std::move(host);
}

// ---- the log

Keeper::ABOUT_T &Keeper::about(const KEPT_SESSION_T &session)
{
    return about_.at(session.key);
}

void Keeper::log(const KEPT_SESSION_T &session, const std::string &text)
{
    const ABOUT_T &told = about(session);
    (void)std::fprintf(stderr, "session %u (%s for %s) %s\n", told.number,
                       plain(told.service.name).c_str(), plain(told.who).c_str(),
                       plain(text).c_str());
}

// Any account can cause these lines, as fast as it likes.
void Keeper::turnAway(const char *why)
{
    ++turned_away_;
    const Time now = Clock::now();
    if (told_turned_away_ != Time{} && now - told_turned_away_ < TURNED_AWAY_PAUSE) return;
    (void)std::fprintf(stderr, "connection turned away: %s; %u since the last line\n", why,
                       turned_away_);
    turned_away_ = 0;
    told_turned_away_ = now;
}

KEPT_EVENTS_T Keeper::events()
{
    return {.greeted =
                [this](KEPT_SESSION_T &session) {
                    ABOUT_T &told = about(session);
                    if (told.lost)
                        log(session, "is back after " + secondsText(Clock::now() - *told.lost));
                    else
                        log(session, told.has_begun ? "has another line" : "begun");
                    told.has_begun = true;
                    told.lost.reset();
                },
            .lost =
                [this](KEPT_SESSION_T &session, const char *why) {
                    about(session).lost = Clock::now();
                    log(session, std::string("has lost its line: ") + why);
                },
            .over =
                [this](KEPT_SESSION_T &session) {
                    log(session, "ended after " + secondsText(Clock::now() - about(session).begun) +
                                     ": " + session.reason);
                }};
}

// ---- carriers that are no session's yet

void Keeper::acceptAll()
{
    while (incomers_.size() < INCOMERS_MAX) {
        // cppcheck-suppress nullPointer // accept(2) allows null for an address that is not wanted
        UniqueFd fd{::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
        if (!fd) return;
        const auto owner = loopback_peer_owner(fd.get());
        if (!owner || *owner != settings_.account) {
            turnAway("not the daemon's account");
            continue;
        }
        const int on = 1;
        (void)::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        INCOMER_T &incomer = incomers_.emplace_back();
        incomer.fd = std::move(fd);
        incomer.since = Clock::now();
    }
}

short Keeper::eventsOf(const INCOMER_T &incomer)
{
    return incomer.step == STEP::CONNECTING ? POLLOUT : POLLIN;
}

bool Keeper::serve(INCOMER_T &incomer, short events)
{
    const auto age = Clock::now() - incomer.since;
    switch (incomer.step) {
    case STEP::READING:
        if (events != 0) return readMore(incomer);
        return age < INCOMER_TIME;
    case STEP::CONNECTING:
        if (events != 0) return connected(incomer);
        if (age < CONNECT_TIME) return true;
        return refuse(incomer, REFUSAL::SERVICE, "the service does not take the connection");
    case STEP::REFUSED: {
        // Closing with unread bytes would overtake the answer with a reset.
        std::array<std::uint8_t, 4096> unwanted;
        if (events != 0 && ::recv(incomer.fd.get(), unwanted.data(), unwanted.size(), 0) <= 0)
            return false;
        return age < REFUSED_TIME;
    }
    }
    return false;
}

bool Keeper::readMore(INCOMER_T &incomer)
{
    const std::size_t before = incomer.bytes.size();
    incomer.bytes.resize(INCOMER_BYTES);
    const ssize_t count = ::recv(incomer.fd.get(), incomer.bytes.data() + before,
                                 INCOMER_BYTES - before, MSG_DONTWAIT);
    incomer.bytes.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    if (incomer.opening_size == 0 && incomer.bytes.size() >= OPENING_PREFIX) {
        incomer.opening_size = openingSize(incomer.bytes);
        if (incomer.opening_size == 0) {
            turnAway("it did not begin with an opening");
            return false;
        }
    }
    if (incomer.opening_size == 0 || incomer.bytes.size() < incomer.opening_size) return true;
    return takeOpening(incomer);
}

bool Keeper::takeOpening(INCOMER_T &incomer)
{
    const auto bytes = std::span(incomer.bytes).first(incomer.opening_size);
    switch (parseOpening(bytes, incomer.opening)) {
    case OPENING_FAULT::NONE:
        break;
    case OPENING_FAULT::NEWER:
        return refuse(incomer, REFUSAL::VERSION, "this keeper knows version 1 only");
    case OPENING_FAULT::NOT_ONE:
    case OPENING_FAULT::DAMAGED:
        turnAway("its opening is damaged");
        return false;
    }
    if (incomer.opening.kind != OPENING::END) return takeHello(incomer);
    endKept(incomer);
    return false;
}

void Keeper::endKept(const INCOMER_T &incomer)
{
    KEPT_SESSION_T *const session = sessions_.find(incomer.opening.key);
    if (session == nullptr) return;
    const ABOUT_T &told = about(*session);
    if (told.who != incomer.opening.who || told.service != incomer.opening.service) return;
    sessions_.end(*session, KEPT_END::GIVEN_UP, CLOSED_BY_BACK_END);
}

bool Keeper::takeHello(INCOMER_T &incomer)
{
    auto bytes = std::span<const std::uint8_t>(incomer.bytes).subspan(incomer.opening_size);
    FRAME_T hello;
    std::span<const std::uint8_t> payload;
    const TAKEN taken = takeFrame(bytes, hello, payload);
    if (taken == TAKEN::NONE) return incomer.bytes.size() < INCOMER_BYTES;
    if (taken == TAKEN::DAMAGED || hello.kind != FRAME::HELLO || payload.empty()) {
        turnAway("its first frame is no HELLO");
        return false;
    }
    if (payload[0] != PROTOCOL_VERSION)
        return refuse(incomer, REFUSAL::VERSION, "this keeper knows version 1 only");
    KEPT_SESSION_T *const session = sessions_.find(incomer.opening.key);
    if (session != nullptr) return join(incomer, *session, hello);
    if (incomer.opening.kind == OPENING::BEGIN) return begin(incomer);
    return refuse(incomer, REFUSAL::UNKNOWN, "the gateway does not have the session any more");
}

bool Keeper::join(INCOMER_T &incomer, KEPT_SESSION_T &session, const FRAME_T &hello)
{
    const ABOUT_T &told = about(session);
    if (told.who != incomer.opening.who || told.service != incomer.opening.service)
        return refuse(incomer, REFUSAL::UNKNOWN, "the gateway does not have the session any more");
    if (session.state == KEPT_STATE::CLOSING || session.state == KEPT_STATE::OVER)
        return refuse(incomer, session.end == KEPT_END::WHOLE ? REFUSAL::WHOLE : REFUSAL::ENDED,
                      session.reason);
    // One that was under way for long must not displace the one that works.
    if (hello.acknowledged < session.stream.outgoing.begin() ||
        hello.acknowledged > session.stream.most_sent) {
        turnAway("its HELLO is of before");
        return false;
    }
    sessions_.attach(session, std::move(incomer.fd),
                     std::span(incomer.bytes).subspan(incomer.opening_size));
    return false;
}

bool Keeper::begin(INCOMER_T &incomer)
{
    const KEPT_SERVICE_T &wanted = incomer.opening.service;
    if (!isListed(settings_.services, wanted, settings_.host))
        return refuse(incomer, REFUSAL::SERVICE, "the gateway's list has no such service");
    if (!makeRoom()) return refuse(incomer, REFUSAL::FULL, "the keeper has no place left");
    incomer.service = startConnect(wanted);
    if (!incomer.service)
        return errno == EADDRNOTAVAIL
                   ? refuse(incomer, REFUSAL::FULL, "the service's address is no IPv4 address")
                   : refuse(incomer, REFUSAL::SERVICE, std::strerror(errno));
    incomer.step = STEP::CONNECTING;
    incomer.since = Clock::now();
    return true;
}

bool Keeper::connected(INCOMER_T &incomer)
{
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(incomer.service.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        error = errno;
    if (error != 0)
        return refuse(incomer, REFUSAL::SERVICE, "the service: " + std::string(strerror(error)));
    // Another carrier may have begun it meanwhile.
    if (sessions_.find(incomer.opening.key) != nullptr) return false;
    tellAlive(incomer.service.get());
    const Time now = Clock::now();
    ABOUT_T &told = about_[incomer.opening.key];
    told = {.number = ++last_number_,
            .who = incomer.opening.who,
            .service = incomer.opening.service,
            .begun = now,
            .ends = {},
            .lost = {},
            .has_begun = false};
    if (incomer.opening.longest_s > 0)
        told.ends = now + std::chrono::seconds(incomer.opening.longest_s);
    KEPT_SESSION_T &session =
        sessions_.add(SIDE::KEEPER, incomer.opening.key, std::move(incomer.service), events());
    sessions_.attach(session, std::move(incomer.fd),
                     std::span(incomer.bytes).subspan(incomer.opening_size));
    return false;
}

bool Keeper::refuse(INCOMER_T &incomer, REFUSAL refusal, const std::string &text)
{
    std::vector<std::uint8_t> payload{static_cast<std::uint8_t>(refusal)};
    payload.insert(payload.end(), text.begin(), text.end());
    FRAME_T frame;
    frame.kind = FRAME::REFUSED;
    frame.size = static_cast<std::uint16_t>(payload.size());
    frame.payload_crc = crc32c(payload);
    const FrameHeader header = buildHeader(frame);
    payload.insert(payload.begin(), header.begin(), header.end());
    // A new connection's empty queue takes as little as this, or the connection is gone.
    if (::send(incomer.fd.get(), payload.data(), payload.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
        return false;
    (void)std::fprintf(stderr, "%s for %s refused: %s\n",
                       plain(incomer.opening.service.name).c_str(),
                       plain(incomer.opening.who).c_str(), text.c_str());
    (void)::shutdown(incomer.fd.get(), SHUT_WR);
    incomer.service.reset();
    incomer.step = STEP::REFUSED;
    incomer.since = Clock::now();
    return true;
}

// ---- sessions

// False when every place is taken by a session whose line is there.
bool Keeper::makeRoom()
{
    std::size_t held = 0;
    KEPT_SESSION_T *longest = nullptr;
    sessions_.each([&](KEPT_SESSION_T &session) {
        if (session.state == KEPT_STATE::OVER || session.state == KEPT_STATE::CLOSING) return;
        ++held;
        if (session.state == KEPT_STATE::AWAY &&
            (longest == nullptr || session.since < longest->since))
            longest = &session;
    });
    if (held < settings_.sessions_max) return true;
    if (longest == nullptr) return false;
    sessions_.end(*longest, KEPT_END::GIVEN_UP, "it made room for another");
    return true;
}

void Keeper::lookAtTimes()
{
    const Time now = Clock::now();
    std::size_t over = 0;
    sessions_.each([&](KEPT_SESSION_T &session) {
        if (session.state == KEPT_STATE::OVER) ++over;
        if (session.state == KEPT_STATE::OVER || session.state == KEPT_STATE::CLOSING) return;
        const ABOUT_T &told = about(session);
        if (told.ends && now >= *told.ends)
            sessions_.end(session, KEPT_END::GIVEN_UP,
                          "the longest session that a grant allows is over");
        else if (told.lost && now - *told.lost >= settings_.away_time)
            sessions_.end(session, KEPT_END::GIVEN_UP,
                          "nobody came back for " + secondsText(settings_.away_time));
    });
    sessions_.sweep([&](const KEPT_SESSION_T &session) {
        const bool is_unwanted =
            over > REMEMBERED_MAX || now - session.since >= settings_.away_time;
        if (!is_unwanted) return false;
        if (over > 0) --over;
        about_.erase(session.key);
        return true;
    });
}

bool Keeper::pass(int wake)
{
    std::vector<pollfd> others;
    const bool has_room = incomers_.size() < INCOMERS_MAX;
    others.push_back({has_room ? listener_.get() : -1, POLLIN, 0});
    others.push_back({wake, POLLIN, 0});
    for (const INCOMER_T &incomer : incomers_)
        others.push_back(
            {incomer.step == STEP::CONNECTING ? incomer.service.get() : incomer.fd.get(),
             eventsOf(incomer), 0});
    sessions_.pass(others, PASS_TIME);
    std::size_t index = 2;
    for (auto incomer = incomers_.begin(); incomer != incomers_.end(); ++index) {
        const bool stays = serve(*incomer, others[index].revents);
        incomer = stays ? std::next(incomer) : incomers_.erase(incomer);
    }
    if (others[0].revents != 0) acceptAll();
    lookAtTimes();
    return others[1].revents != 0;
}

} // namespace keeper
