#include "backend/net/admission.h"

#include "backend/observe/log.h"
#include "backend/observe/metrics.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <tuple>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <sys/socket.h>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

constexpr auto SWEEP_PAUSE = std::chrono::milliseconds(200);
constexpr std::size_t SHARES = 4; // an address may have one of them before it has to make room
constexpr auto STAGE_SILENCE_MIN = std::chrono::milliseconds(300);
constexpr auto ROOM_SILENCE_MIN = std::chrono::milliseconds(100);

ADDRESS_KEY_T addressKey(const asio::ip::address &address)
{
    if (address.is_v4()) return {4, address.to_v4().to_uint()};
    if (address.to_v6().is_v4_mapped())
        return {4, asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_uint()};
    const auto bytes = address.to_v6().to_bytes();
    std::uint64_t prefix = 0;
    for (std::size_t i = 0; i < sizeof prefix; i++)
        prefix = prefix << 8 | bytes[i];
    return {6, prefix};
}

// ---- one place

Place::Place(std::shared_ptr<Admission> admission, const ADDRESS_KEY_T &key)
    : admission_(std::move(admission)), silent_{this}, turn_{this}, staged_{this},
      ends_at_(silent_since_ + admission_->limits_.handshake_time)
{
    admission_->join(*this, key);
}

Place::~Place()
{
    admission_->leave(*this);
}

bool Place::noteProgress(std::size_t count)
{
    bytes_ += count;
    stage_ = std::max(stage_, SPOKEN);
    if (address_ != nullptr) admission_->renew(*this);
    return bytes_ <= admission_->bytes_max_;
}

void Place::waitForTurn(std::function<void()> step, bool is_first)
{
    if (address_ == nullptr) return;
    step_ = std::move(step);
    admission_->queueTurn(*this, is_first);
}

// ---- the table

bool ADDRESS_ORDER_T::operator()(const ADDRESS_T *left, const ADDRESS_T *right) const
{
    const auto rank = [](const ADDRESS_T &address) {
        return std::tuple(-static_cast<std::ptrdiff_t>(address.places.size()),
                          address.places.front()->silent_since_, &address);
    };
    return rank(*left) < rank(*right);
}

Admission::Admission(asio::io_context &io, const LIMITS_T &limits, Started started,
                     std::size_t bytes_max)
    : io_(io), limits_(limits), started_(std::move(started)), bytes_max_(bytes_max), timer_(io)
{
}

Admission::~Admission() = default;

void Admission::join(Place &place, const ADDRESS_KEY_T &key)
{
    const auto [found, is_new] = addresses_.try_emplace(key);
    ADDRESS_T &address = found->second;
    if (is_new) {
        try {
            address.key = key;
            address.ring_at = address.ring.insert(address.ring.end(), &address);
            address.places.splice(address.places.end(), place.silent_);
            ranking_.insert(&address);
        } catch (...) {
            addresses_.erase(found);
            throw;
        }
    } else {
        auto rank = ranking_.extract(&address);
        address.places.splice(address.places.end(), place.silent_);
        ranking_.insert(std::move(rank));
    }
    place.address_ = &address;
    count_++;
    enterStage(place);
}

void Admission::enterStage(Place &place) noexcept
{
    leaveStage(place);
    place.stage_list_ = &stages_.at(place.stage_);
    place.stage_list_->splice(place.stage_list_->end(), place.staged_);
}

void Admission::leaveStage(Place &place) noexcept
{
    Places *const list = std::exchange(place.stage_list_, nullptr);
    if (list != nullptr) place.staged_.splice(place.staged_.end(), *list, place.staged_at_);
}

void Admission::leave(Place &place) noexcept
{
    if (place.address_ == nullptr) return;
    leaveQueue(place);
    leaveStage(place);
    ADDRESS_T &address = *std::exchange(place.address_, nullptr);
    count_--;
    auto rank = ranking_.extract(&address);
    address.places.erase(place.silent_at_);
    if (address.places.empty())
        addresses_.erase(address.key);
    else
        ranking_.insert(std::move(rank));
}

void Admission::renew(Place &place) noexcept
{
    ADDRESS_T &address = *place.address_;
    auto rank = ranking_.extract(&address);
    place.silent_since_ = Clock::now();
    address.places.splice(address.places.end(), address.places, place.silent_at_);
    ranking_.insert(std::move(rank));
    if (place.turn_list_ == nullptr) enterStage(place);
}

// ---- connections that come and go

struct WAITING_T { // for its first byte
    explicit WAITING_T(tcp::socket from) : socket(std::move(from)) {}
    tcp::socket socket;
    PlacePtr place;
};

enum class FIRST { HERE, NOT_YET, NEVER };

// A wait may end without anything to read: the number of a socket that was closed a moment ago is
// given to a new one.
static FIRST lookForFirst(tcp::socket &socket)
{
    char first = 0;
    const ssize_t count = recv(socket.native_handle(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
    if (count > 0) return FIRST::HERE;
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? FIRST::NOT_YET : FIRST::NEVER;
}

void Admission::awaitFirst(const std::shared_ptr<WAITING_T> &waiting)
{
    waiting->socket.async_wait(
        Socket::wait_read, [self = weak_from_this(), waiting](const error_code &failed) {
            const auto held = self.lock();
            if (!held || failed) return;
            switch (lookForFirst(waiting->socket)) {
            case FIRST::NOT_YET:
                return held->awaitFirst(waiting);
            case FIRST::NEVER:
                return;
            case FIRST::HERE:
                (void)waiting->place->noteProgress(0); // they are counted when they are read
                held->started_(std::move(waiting->socket), std::move(waiting->place));
            }
        });
}

void Admission::enter(Socket socket)
{
    error_code error;
    const auto peer = socket.remote_endpoint(error);
    if (error) return; // gone already
    armSweep();
    const auto waiting = std::make_shared<WAITING_T>(std::move(socket));
    waiting->place = std::make_unique<Place>(shared_from_this(), addressKey(peer.address()));
    waiting->place->whenExpelled([&on = waiting->socket](const char *) {
        error_code ignored;
        on.close(ignored);
    });
    awaitFirst(waiting);
    while (count_ > limits_.places)
        expel(*nextToLeave(), "it made room for another one");
}

// Null only without any connection.
Place *Admission::nextToLeave()
{
    if (ranking_.empty()) return nullptr;
    const ADDRESS_T &largest = **ranking_.begin();
    if (largest.places.size() > limits_.places / SHARES) {
        const auto silent =
            std::find_if(largest.places.begin(), largest.places.end(),
                         [](const Place *place) { return place->turn_list_ == nullptr; });
        return silent != largest.places.end() ? *silent : largest.places.front();
    }
    // Who has just come must not make room for those who have got further and fell silent.
    const auto silent_since = Clock::now() - STAGE_SILENCE_MIN;
    Place *longest = nullptr;
    for (const Places &stage : stages_) {
        if (stage.empty()) continue;
        Place *const first = stage.front();
        if (first->silent_since_ <= silent_since) return first;
        if (longest == nullptr || first->silent_since_ < longest->silent_since_) longest = first;
    }
    return longest != nullptr ? longest : largest.places.front(); // all wait for their turn
}

bool Admission::makeRoom()
{
    Place *const place = nextToLeave();
    if (place == nullptr || Clock::now() - place->silent_since_ < ROOM_SILENCE_MIN) return false;
    expel(*place, "it made room for another one");
    return true;
}

void Admission::close()
{
    timer_.cancel();
    while (!ranking_.empty())
        expel(*(*ranking_.begin())->places.front(), "the back end ends");
}

void Admission::expel(Place &place, const char *reason)
{
    leave(place); // first: its owner may take a moment to end the connection
    expelled_++;
    addToMetric(METRIC::CONNECTIONS_TURNED_AWAY);
    const auto step = std::exchange(place.step_, nullptr); // may hold the place's owner
    const auto expelled = std::exchange(place.expelled_, nullptr);
    if (expelled) expelled(reason);
}

void Admission::armSweep()
{
    if (is_sweeping_) return;
    timer_.expires_after(SWEEP_PAUSE);
    timer_.async_wait([self = weak_from_this()](const error_code &error) {
        const auto held = self.lock();
        if (!held) return;
        held->is_sweeping_ = false;
        if (!error) held->sweep();
    });
    is_sweeping_ = true;
}

// Null while it may stay.
const char *Admission::faultOf(const Place &place, Clock::time_point now) const
{
    if (place.turn_list_ != nullptr) return nullptr;
    if (now >= place.ends_at_) return "no handshake in time";
    const auto silence = now - place.silent_since_;
    if (place.stage_ == Place::SILENT && silence >= limits_.first_byte_time)
        return "nothing was sent";
    return silence >= limits_.progress_time ? "nothing more was sent" : nullptr;
}

void Admission::sweep()
{
    if (count_ > 0) armSweep();
    const auto now = Clock::now();
    std::vector<Place *> faulty;
    for (const auto &[key, address] : addresses_)
        std::copy_if(address.places.begin(), address.places.end(), std::back_inserter(faulty),
                     [&](const Place *place) { return faultOf(*place, now) != nullptr; });
    for (Place *place : faulty)
        expel(*place, faultOf(*place, now));
    reportExpelled();
}

void Admission::reportExpelled()
{
    const auto now = Clock::now();
    if (expelled_ == 0 || now < line_at_) return;
    line_at_ = now + LINE_PAUSE;
    logWarning("%zu connections ended without a handshake, %zu more are open",
               std::exchange(expelled_, 0), count_);
}

// ---- turns

void Admission::queueTurn(Place &place, bool is_first)
{
    ADDRESS_T &address = *place.address_;
    leaveQueue(place);
    leaveStage(place);
    if (!is_first) place.stage_ = Place::ANSWERED;
    place.waits_since_ = Clock::now();
    place.turn_list_ = is_first ? &address.first_turns : &address.further_turns;
    place.turn_list_->splice(place.turn_list_->end(), place.turn_);
    if (!address.is_in_ring) ring_.splice(ring_.end(), address.ring);
    address.is_in_ring = true;
    postSlice();
}

// What it has waited is not its own time.
void Admission::leaveQueue(Place &place) noexcept
{
    if (place.turn_list_ == nullptr) return;
    ADDRESS_T &address = *place.address_;
    place.turn_.splice(place.turn_.end(), *std::exchange(place.turn_list_, nullptr),
                       place.turn_at_);
    place.ends_at_ += Clock::now() - place.waits_since_;
    renew(place);
    if (!address.first_turns.empty() || !address.further_turns.empty()) return;
    address.ring.splice(address.ring.end(), ring_, address.ring_at);
    address.is_in_ring = false;
}

void Admission::postSlice()
{
    if (is_slice_posted_) return;
    asio::post(io_, [self = weak_from_this()] {
        const auto held = self.lock();
        if (held) held->runSlice();
    });
    is_slice_posted_ = true;
}

void Admission::runSlice()
{
    is_slice_posted_ = false;
    const auto end = Clock::now() + TURN_SLICE;
    while (!ring_.empty()) {
        postSlice(); // before a step that may throw
        takeTurn();
        if (Clock::now() >= end) return;
    }
}

void Admission::takeTurn()
{
    ADDRESS_T &address = *ring_.front();
    ring_.splice(ring_.end(), ring_, ring_.begin()); // the next turn is another address's
    // Neither kind keeps the other from its turn.
    const bool is_first =
        address.further_turns.empty() || (address.is_first_next && !address.first_turns.empty());
    address.is_first_next = !is_first;
    Place &place = *(is_first ? address.first_turns : address.further_turns).front();
    leaveQueue(place);
    const auto step = std::exchange(place.step_, nullptr);
    step(); // may destroy the place
}

} // namespace backend
