#include "devgateway/mqtt_bridge/broker_link.h"

#include "common/log.h"
#include "utility/handles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mosquitto.h>
#include <netdb.h>
#include <poll.h>

namespace {

constexpr int QOS_REFUSED = 0x80;
constexpr int UPKEEP_MS = 1000; // how often the library looks at its keepalive

BROKER_LINK_T &link_of(void *self)
{
    return *static_cast<BROKER_LINK_T *>(self);
}

const char *current_address(const BROKER_LINK_T &link)
{
    return link
        .addresses[link.next_address == 0 ? link.addresses.size() - 1 : link.next_address - 1]
        .c_str();
}

// The library is C: its callbacks only note what happened, nothing in them throws towards it.
void note_connect(mosquitto *, void *self, int code)
{
    BROKER_LINK_T &link = link_of(self);
    if (code != 0) {
        link.refusal = mosquitto_connack_string(code);
        return;
    }
    link.state = BROKER_UP;
    link.outage_reported = false;
    RA_INFO("connected to the broker at %s port %d", current_address(link), link.port);
    link.events.push_back({BROKER_CONNECTED, 0, true, {}, {}});
}

void note_granted(mosquitto *, void *self, int request, int count, const int *granted)
{
    BROKER_LINK_T &link = link_of(self);
    --link.unanswered;
    const bool accepted = count == 1 && granted[0] < QOS_REFUSED;
    link.events.push_back({BROKER_ANSWERED, request, accepted, {}, {}});
}

void note_taken(mosquitto *, void *self, int request)
{
    BROKER_LINK_T &link = link_of(self);
    --link.unanswered;
    --link.untaken;
    link.events.push_back({BROKER_ANSWERED, request, true, {}, {}});
}

void note_message(mosquitto *, void *self, const mosquitto_message *message)
{
    const auto length = static_cast<std::size_t>(message->payloadlen);
    std::string payload;
    if (length > 0) payload.assign(static_cast<const char *>(message->payload), length);
    link_of(self).events.push_back({BROKER_MESSAGE, 0, true, message->topic, std::move(payload)});
}

void drop_client(BROKER_LINK_T &link)
{
    link.client.reset();
    link.state = BROKER_DOWN;
    link.unanswered = link.untaken = 0;
}

void lose_broker(BROKER_LINK_T &link, const char *reason, std::int64_t now_ms)
{
    if (!link.refusal.empty()) reason = link.refusal.c_str();
    const bool was_up = link.state == BROKER_UP;
    if (was_up) {
        RA_WARN("the broker is lost: %s", reason);
    } else if (!link.outage_reported) {
        RA_WARN("no broker at %s port %d: %s; tried again and again", current_address(link),
                link.port, reason);
    }
    link.outage_reported = true;
    const bool untried_address = !was_up && link.next_address != 0;
    link.next_ms = now_ms + (untried_address ? 0 : RETRY_MS);
    drop_client(link);
    link.refusal.clear();
    link.events.push_back({BROKER_LOST, 0, false, {}, {}});
}

// Where it is the system that failed, errno says more than the library's text; it must be read at
// once. The library has no text for a broker that left its keepalive unanswered.
std::string reason_of(int code)
{
    if (code == MOSQ_ERR_ERRNO) return std::strerror(errno);
    return code == MOSQ_ERR_KEEPALIVE ? "it is silent" : mosquitto_strerror(code);
}

void connect_broker(BROKER_LINK_T &link, std::int64_t now_ms)
{
    link.next_address = (link.next_address + 1) % link.addresses.size();
    link.client.reset(
        mosquitto_new(link.client_id.empty() ? nullptr : link.client_id.c_str(), true, &link));
    if (link.client == nullptr) {
        lose_broker(link, std::strerror(errno), now_ms);
        return;
    }
    mosquitto *const client = link.client.get();
    mosquitto_connect_callback_set(client, note_connect);
    mosquitto_subscribe_callback_set(client, note_granted);
    mosquitto_publish_callback_set(client, note_taken);
    mosquitto_message_callback_set(client, note_message);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    link.state = BROKER_CONNECTING;
    link.next_ms = now_ms + CONNECT_LIMIT_MS;
    // To a numeric address it returns as soon as the connection is under way, and the rest is done
    // by the reads and writes of our own loop; the library needs no thread of its own for it.
    const int code = mosquitto_connect_async(client, current_address(link), link.port, KEEPALIVE_S);
    if (code != MOSQ_ERR_SUCCESS) lose_broker(link, reason_of(code).c_str(), now_ms);
}

} // namespace

void BrokerClientDeleter::operator()(mosquitto *client) const noexcept
{
    mosquitto_destroy(client);
}

int find_broker(BROKER_LINK_T &link, const char *host, int port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int code = ::getaddrinfo(host, nullptr, &hints, &found);
    if (code != 0) {
        RA_ERROR("the broker's host %s is not found: %s", host, ::gai_strerror(code));
        return -1;
    }
    const std::unique_ptr<addrinfo, Releaser<::freeaddrinfo>> owned{found};
    for (const addrinfo *entry = found; entry != nullptr; entry = entry->ai_next) {
        char text[NI_MAXHOST];
        if (::getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0,
                          NI_NUMERICHOST) == 0) {
            link.addresses.emplace_back(text);
        }
    }
    link.port = port;
    if (link.addresses.empty()) RA_ERROR("the broker's host %s has no address", host);
    return link.addresses.empty() ? -1 : 0;
}

void open_broker(BROKER_LINK_T &link, std::int64_t now_ms)
{
    link.wanted = true;
    if (link.state == BROKER_DOWN) connect_broker(link, now_ms);
}

void close_broker(BROKER_LINK_T &link)
{
    link.wanted = false;
    link.outage_reported = false;
    if (link.state == BROKER_DOWN) return;
    (void)mosquitto_disconnect(link.client.get()); // a broker that is gone needs no disconnect
    drop_client(link);
}

pollfd broker_pollfd(const BROKER_LINK_T &link) noexcept
{
    if (link.state == BROKER_DOWN) return {-1, 0, 0};
    const int writes = mosquitto_want_write(link.client.get()) ? POLLOUT : 0;
    return {mosquitto_socket(link.client.get()), static_cast<short>(POLLIN | writes), 0};
}

int broker_timeout_ms(const BROKER_LINK_T &link, std::int64_t now_ms) noexcept
{
    if (link.state == BROKER_UP) return UPKEEP_MS;
    if (!link.wanted) return -1;
    return static_cast<int>(
        std::clamp(link.next_ms - now_ms, std::int64_t{0}, std::int64_t{CONNECT_LIMIT_MS}));
}

void serve_broker(BROKER_LINK_T &link, short revents, std::int64_t now_ms)
{
    if (link.state == BROKER_DOWN) {
        if (link.wanted && now_ms >= link.next_ms) connect_broker(link, now_ms);
        return;
    }
    mosquitto *const client = link.client.get();
    int code = MOSQ_ERR_SUCCESS;
    if ((revents & POLLOUT) != 0) code = mosquitto_loop_write(client, 1);
    if (code == MOSQ_ERR_SUCCESS && (revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
        code = mosquitto_loop_read(client, 1);
    }
    if (code == MOSQ_ERR_SUCCESS) code = mosquitto_loop_misc(client);
    if (code != MOSQ_ERR_SUCCESS) {
        lose_broker(link, reason_of(code).c_str(), now_ms);
    } else if (link.state == BROKER_CONNECTING && now_ms >= link.next_ms) {
        lose_broker(link, "it does not answer", now_ms);
    }
}

int broker_subscribe(BROKER_LINK_T &link, const std::string &topic, int qos)
{
    if (link.unanswered >= BROKER_UNANSWERED_MAX) return BROKER_BUSY;
    int request = 0;
    if (mosquitto_subscribe(link.client.get(), &request, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) {
        return BROKER_NOT_SENT;
    }
    ++link.unanswered;
    return request;
}

int broker_publish(BROKER_LINK_T &link, const std::string &topic, const std::string &payload,
                   int qos)
{
    if (link.unanswered >= BROKER_UNANSWERED_MAX || link.untaken >= BROKER_UNTAKEN_MAX) {
        return BROKER_BUSY;
    }
    int request = 0;
    if (mosquitto_publish(link.client.get(), &request, topic.c_str(),
                          static_cast<int>(payload.size()), payload.data(), std::max(qos, 1),
                          false) != MOSQ_ERR_SUCCESS) {
        return BROKER_NOT_SENT;
    }
    ++link.unanswered;
    ++link.untaken;
    return request;
}
