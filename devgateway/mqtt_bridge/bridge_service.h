// Bridge service: the gateway's modules on the private bus, and the MQTT broker.
//
// Bus      name and interface iot.bridge.mqtt, path /iot/bridge/mqtt. Every method answers one
//          string {"code":N} with a BRIDGE_CODE.
//            subscribe (s topic, s subscriber, i qos)
//              0 once the broker has granted it. From then on the subscriber, a module's bus name
//              (module.h), gets every message, also after a restart of the broker. The
//              broker sends a retained message at every subscribe.
//            publish (s topic, s payload, i qos)
//              0 once the broker has taken the message.
//            open_cloud_channel ()
//              0 once connected. The bridge connects by itself when it starts.
//            close_cloud_channel ()
//              0 at once. The bridge stays away until it is opened; subscriptions are kept.
// Signal   subscribe_event (s topic, s payload), to the subscriber's name. The bus carries neither
//          bytes that are not UTF-8 nor NULs: a message that holds one is dropped with a warning.
// Limits   PAYLOAD_MAX bytes, WAITING_MAX calls unanswered. A call is answered within
//          SUBSCRIBE_LIMIT_MS or ANSWER_LIMIT_MS, less than the daemon waits (1000 and 500 ms);
//          at once when no broker is there and none is being connected. No call waits for another.
// Threads  one.
#pragma once

#include "devgateway/mqtt_bridge/broker_link.h"

constexpr std::size_t PAYLOAD_MAX = std::size_t{256} * 1024;
constexpr std::size_t WAITING_MAX = 256;
constexpr int SUBSCRIBE_LIMIT_MS = 750;
constexpr int ANSWER_LIMIT_MS = 350;

enum BRIDGE_CODE : int {
    BRIDGE_DONE = 0,
    BRIDGE_SENSELESS = 1,     // a topic, payload, QoS or subscriber that cannot be
    BRIDGE_NOT_CONNECTED = 2, // the broker is away, or the channel is closed
    BRIDGE_REFUSED = 3,       // the broker refused
    BRIDGE_NO_ANSWER = 4, // the broker did not answer in time; the request may still take effect
    BRIDGE_BUSY = 5,      // too many subscriptions, or too many requests unanswered
};

// Serves until stop_fd becomes readable (0), or until the bus cannot be reached, is lost, or
// another program holds the name (-1, logged). link has its addresses and is the caller's, as is
// stop_fd.
[[nodiscard]] int serve_bridge(const char *bus_address, BROKER_LINK_T &link, int stop_fd);
