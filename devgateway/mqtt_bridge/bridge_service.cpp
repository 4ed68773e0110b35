#include "devgateway/mqtt_bridge/bridge_service.h"

#include "common/log.h"
#include "devgateway/bus_library.h"
#include "devgateway/module.h"
#include "devgateway/mqtt_bridge/subscriptions.h"
#include "utility/monotonic_clock.h"
#include "utility/utf8.h"

#include <algorithm>
#include <mosquitto.h>
#include <poll.h>
#include <utility>

namespace {

constexpr char BRIDGE_NAME[] = "iot.bridge.mqtt"; // the interface's, too
constexpr char BRIDGE_PATH[] = "/iot/bridge/mqtt";
constexpr char MESSAGE_SIGNAL[] = "subscribe_event";
constexpr int QOS_MAX = 2;

using Answer = sdbus::Result<std::string>;

enum CALL { CALL_SUBSCRIBE, CALL_PUBLISH, CALL_OPEN };

// A call that is not answered yet.
struct WAITING_T {
    CALL call;
    std::string topic;
    std::string text; // the subscriber, or the payload
    int qos;
    std::int64_t until_ms;
    int request; // at the broker; 0 until the link is up
    Answer answer;
};

struct BRIDGE_T {
    BROKER_LINK_T &link;
    SUBSCRIPTIONS_T subscriptions;
    std::vector<WAITING_T> waiting;
    std::unique_ptr<sdbus::IObject> object;
};

std::int64_t now_ms()
{
    return milliseconds_of(monotonic_now());
}

void answer_call(const Answer &answer, BRIDGE_CODE code)
{
    answer.returnResults("{\"code\":" + std::to_string(code) + "}");
}

// Answers and forgets every waiting call that fits.
template <class Fits> void answer_waiting(BRIDGE_T &bridge, BRIDGE_CODE code, Fits fits)
{
    std::vector<WAITING_T> left;
    for (WAITING_T &call : bridge.waiting) {
        if (fits(call)) {
            answer_call(call.answer, code);
        } else {
            left.push_back(std::move(call));
        }
    }
    bridge.waiting = std::move(left);
}

// Hands a call to the broker. BRIDGE_DONE when it is on its way.
BRIDGE_CODE send_call(BRIDGE_T &bridge, WAITING_T &call)
{
    call.request = call.call == CALL_SUBSCRIBE
                       ? broker_subscribe(bridge.link, call.topic, call.qos)
                       : broker_publish(bridge.link, call.topic, call.text, call.qos);
    if (call.request > 0) return BRIDGE_DONE;
    return call.request == BROKER_BUSY ? BRIDGE_BUSY : BRIDGE_REFUSED;
}

// Takes a call that made sense: sends it, or lets it wait for a connection that is on its way.
void begin_call(BRIDGE_T &bridge, WAITING_T call)
{
    BRIDGE_CODE code = BRIDGE_DONE;
    if (bridge.waiting.size() >= WAITING_MAX) {
        code = BRIDGE_BUSY;
    } else if (bridge.link.state == BROKER_DOWN) {
        code = BRIDGE_NOT_CONNECTED;
    } else if (bridge.link.state == BROKER_UP) {
        code = send_call(bridge, call);
    }
    if (code == BRIDGE_DONE) {
        bridge.waiting.push_back(std::move(call));
    } else {
        answer_call(call.answer, code);
    }
}

bool is_topic(const std::string &topic, int (*check)(const char *))
{
    return !topic.empty() && check(topic.c_str()) == MOSQ_ERR_SUCCESS &&
           mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) ==
               MOSQ_ERR_SUCCESS;
}

void take_subscribe(BRIDGE_T &bridge, Answer answer, std::string topic, std::string subscriber,
                    int qos)
{
    const bool sensible = is_topic(topic, mosquitto_sub_topic_check) &&
                          is_module_name(subscriber) && qos >= 0 && qos <= QOS_MAX;
    if (!sensible) {
        RA_WARN("subscribe refused: topic '%s', subscriber '%s', QoS %d", topic.c_str(),
                subscriber.c_str(), qos);
        answer_call(answer, BRIDGE_SENSELESS);
    } else if (!has_room_for(bridge.subscriptions, topic, subscriber)) {
        RA_WARN("subscribe refused: there are too many");
        answer_call(answer, BRIDGE_BUSY);
    } else {
        begin_call(bridge, {CALL_SUBSCRIBE, std::move(topic), std::move(subscriber), qos,
                            now_ms() + SUBSCRIBE_LIMIT_MS, 0, std::move(answer)});
    }
}

void take_publish(BRIDGE_T &bridge, Answer answer, std::string topic, std::string payload, int qos)
{
    const bool sensible = is_topic(topic, mosquitto_pub_topic_check) &&
                          payload.size() <= PAYLOAD_MAX && qos >= 0 && qos <= QOS_MAX;
    if (!sensible) {
        RA_WARN("publish refused: topic '%s', %zu bytes, QoS %d", topic.c_str(), payload.size(),
                qos);
        answer_call(answer, BRIDGE_SENSELESS);
        return;
    }
    begin_call(bridge, {CALL_PUBLISH, std::move(topic), std::move(payload), qos,
                        now_ms() + ANSWER_LIMIT_MS, 0, std::move(answer)});
}

void take_open(BRIDGE_T &bridge, Answer answer)
{
    open_broker(bridge.link, now_ms());
    if (bridge.link.state == BROKER_UP) {
        answer_call(answer, BRIDGE_DONE);
        return;
    }
    begin_call(bridge, {CALL_OPEN, {}, {}, 0, now_ms() + ANSWER_LIMIT_MS, 0, std::move(answer)});
}

void take_close(BRIDGE_T &bridge, const Answer &answer)
{
    RA_INFO("the cloud channel is closed");
    close_broker(bridge.link);
    answer_waiting(bridge, BRIDGE_NOT_CONNECTED, [](const WAITING_T &) { return true; });
    answer_call(answer, BRIDGE_DONE);
}

std::unique_ptr<sdbus::IObject> offer_methods(BRIDGE_T &bridge, sdbus::IConnection &bus)
{
    using std::string;
    auto object = sdbus::createObject(bus, sdbus::ObjectPath{BRIDGE_PATH});
    bus_library::offer_method(
        *object, BRIDGE_NAME, "subscribe", {"topic", "subscriber", "qos"}, {"answer"},
        [&bridge](Answer &&answer, string topic, string subscriber, std::int32_t qos) {
            take_subscribe(bridge, std::move(answer), std::move(topic), std::move(subscriber), qos);
        });
    bus_library::offer_method(
        *object, BRIDGE_NAME, "publish", {"topic", "payload", "qos"}, {"answer"},
        [&bridge](Answer &&answer, string topic, string payload, std::int32_t qos) {
            take_publish(bridge, std::move(answer), std::move(topic), std::move(payload), qos);
        });
    bus_library::offer_method(*object, BRIDGE_NAME, "open_cloud_channel", {}, {"answer"},
                              [&bridge](Answer &&answer) { take_open(bridge, std::move(answer)); });
    bus_library::offer_method(*object, BRIDGE_NAME, "close_cloud_channel", {}, {"answer"},
                              [&bridge](Answer &&answer) { take_close(bridge, answer); });
    bus_library::offer_signal<string, string>(*object, BRIDGE_NAME, MESSAGE_SIGNAL,
                                              {"topic", "payload"});
    bus_library::publish(*object);
    return object;
}

void take_connected(BRIDGE_T &bridge)
{
    const auto topics = subscribed_topics(bridge.subscriptions);
    for (const auto &[topic, qos] : topics) {
        if (broker_subscribe(bridge.link, topic, qos) < 0) {
            RA_WARN("not subscribed again: %s", topic.c_str());
        }
    }
    if (!topics.empty()) RA_INFO("%zu topics are subscribed again", topics.size());
    answer_waiting(bridge, BRIDGE_DONE,
                   [](const WAITING_T &call) { return call.call == CALL_OPEN; });
    for (WAITING_T &call : std::exchange(bridge.waiting, {}))
        begin_call(bridge, std::move(call));
}

void take_broker_answer(BRIDGE_T &bridge, const BROKER_EVENT_T &event)
{
    const auto asked = [&event](const WAITING_T &call) { return call.request == event.request; };
    const auto call = std::ranges::find_if(bridge.waiting, asked);
    if (call == bridge.waiting.end()) {
        // Of a call that was answered already, or a subscription made again.
        if (!event.accepted) RA_WARN("the broker refuses what it has granted before");
        return;
    }
    if (!event.accepted) {
        RA_WARN("the broker refused %s to %s", call->topic.c_str(), call->text.c_str());
    } else if (call->call == CALL_SUBSCRIBE) {
        remember_subscription(bridge.subscriptions, call->topic, call->text, call->qos);
        RA_INFO("%s is subscribed to %s", call->text.c_str(), call->topic.c_str());
    }
    answer_waiting(bridge, event.accepted ? BRIDGE_DONE : BRIDGE_REFUSED, asked);
}

void deliver(BRIDGE_T &bridge, const BROKER_EVENT_T &message)
{
    const bool text = is_utf8(message.payload) && message.payload.find('\0') == std::string::npos &&
                      is_utf8(message.topic);
    if (!text || message.payload.size() > PAYLOAD_MAX) {
        RA_WARN("a message on %s is dropped: %zu bytes%s", message.topic.c_str(),
                message.payload.size(), text ? "" : ", not text");
        return;
    }
    for (const std::string &subscriber : subscribers_of(bridge.subscriptions, message.topic)) {
        auto signal = bridge.object->createSignal(bus_library::InterfaceName{BRIDGE_NAME},
                                                  bus_library::MemberName{MESSAGE_SIGNAL});
        signal << message.topic << message.payload;
        signal.setDestination(subscriber);
        bridge.object->emitSignal(signal);
    }
}

void take_broker_event(BRIDGE_T &bridge, const BROKER_EVENT_T &event)
{
    switch (event.kind) {
    case BROKER_CONNECTED:
        take_connected(bridge);
        break;
    case BROKER_LOST:
        answer_waiting(bridge, BRIDGE_NOT_CONNECTED, [](const WAITING_T &) { return true; });
        break;
    case BROKER_ANSWERED:
        take_broker_answer(bridge, event);
        break;
    case BROKER_MESSAGE:
        deliver(bridge, event);
        break;
    }
}

void take_broker_events(BRIDGE_T &bridge)
{
    // Taking one can make another, such as a lost connection.
    while (!bridge.link.events.empty()) {
        for (const BROKER_EVENT_T &event : std::exchange(bridge.link.events, {}))
            take_broker_event(bridge, event);
    }
}

int time_to_wait_ms(const BRIDGE_T &bridge, std::int64_t now)
{
    std::int64_t wait_ms = broker_timeout_ms(bridge.link, now);
    for (const WAITING_T &call : bridge.waiting) {
        const std::int64_t left_ms = std::max(call.until_ms - now, std::int64_t{0});
        wait_ms = wait_ms < 0 ? left_ms : std::min(wait_ms, left_ms);
    }
    return static_cast<int>(wait_ms);
}

void run_bridge(BRIDGE_T &bridge, sdbus::IConnection &bus, int stop_fd)
{
    for (bool going_on = true; going_on;) {
        pollfd broker = broker_pollfd(bridge.link);
        // While the bus does not take what was sent, no more is read from the broker: memory stays
        // bounded, and the broker sees that its receiver is slow.
        if ((bus.getEventLoopPollData().events & POLLOUT) != 0) broker.events &= ~POLLIN;
        going_on = wait_for_work(bus, stop_fd, time_to_wait_ms(bridge, now_ms()), &broker);
        serve_broker(bridge.link, broker.revents, now_ms());
        take_broker_events(bridge);
        answer_waiting(bridge, BRIDGE_NO_ANSWER,
                       [now = now_ms()](const WAITING_T &call) { return now >= call.until_ms; });
    }
    close_broker(bridge.link);
}

} // namespace

int serve_bridge(const char *bus_address, BROKER_LINK_T &link, int stop_fd)
{
    const char *step = "reaching the bus";
    try {
        const auto bus = connect_bus(bus_address);
        BRIDGE_T bridge{link, {}, {}, {}};
        bridge.object = offer_methods(bridge, *bus);
        open_broker(link, now_ms());
        step = "taking the name";
        bus->requestName(bus_library::ServiceName{BRIDGE_NAME});
        RA_INFO("bridging the bus at %s", bus_address);
        step = "serving the bus";
        run_bridge(bridge, *bus, stop_fd);
        return 0;
    } catch (const std::exception &error) {
        RA_ERROR("%s failed: %s", step, error.what());
        return -1;
    }
}
