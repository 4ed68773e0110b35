// Subscriptions: which bus names get the messages of which topics. A topic may be a filter with '+'
// and '#'.
//
// They are kept when a subscriber leaves the bus: its name comes back after a restart, and until
// then the bus drops what is sent to it.
//
// Limits   SUBSCRIPTIONS_MAX pairs of topic and subscriber.
// Threads  one.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

constexpr std::size_t SUBSCRIPTIONS_MAX = 256;

struct SUBSCRIPTIONS_T {
    std::map<std::pair<std::string, std::string>, int> qos; // by topic, subscriber
};

// Whether the pair is there already or still fits.
bool has_room_for(const SUBSCRIPTIONS_T &table, const std::string &topic,
                  const std::string &subscriber);

// A pair that is there already gets the new QoS. The caller has asked has_room_for.
void remember_subscription(SUBSCRIPTIONS_T &table, const std::string &topic,
                           const std::string &subscriber, int qos);

// The subscribers that get a message on this topic, each once however many of its filters match.
std::vector<std::string> subscribers_of(const SUBSCRIPTIONS_T &table, const std::string &topic);

// Every topic once, with the highest QoS that a subscriber asked for: what to subscribe.
std::map<std::string, int> subscribed_topics(const SUBSCRIPTIONS_T &table);
