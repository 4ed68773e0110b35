#include "devgateway/mqtt_bridge/subscriptions.h"

#include <algorithm>
#include <mosquitto.h>

bool has_room_for(const SUBSCRIPTIONS_T &table, const std::string &topic,
                  const std::string &subscriber)
{
    return table.qos.size() < SUBSCRIPTIONS_MAX || table.qos.contains({topic, subscriber});
}

void remember_subscription(SUBSCRIPTIONS_T &table, const std::string &topic,
                           const std::string &subscriber, int qos)
{
    table.qos.insert_or_assign({topic, subscriber}, qos);
}

std::vector<std::string> subscribers_of(const SUBSCRIPTIONS_T &table, const std::string &topic)
{
    std::vector<std::string> subscribers;
    for (const auto &[pair, qos] : table.qos) {
        const auto &[filter, subscriber] = pair;
        bool matches = false;
        if (mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &matches) ==
                MOSQ_ERR_SUCCESS &&
            matches && std::ranges::find(subscribers, subscriber) == subscribers.end()) {
            subscribers.push_back(subscriber);
        }
    }
    return subscribers;
}

std::map<std::string, int> subscribed_topics(const SUBSCRIPTIONS_T &table)
{
    std::map<std::string, int> topics;
    for (const auto &[pair, qos] : table.qos) {
        int &highest = topics.try_emplace(pair.first, qos).first->second;
        highest = std::max(highest, qos);
    }
    return topics;
}
