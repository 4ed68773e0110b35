// Configuration service: the store on the gateway's private bus.
//
// Bus      name and interface iot.gateway.config_manager, path /iot/gateway/config_manager.
//            get (s key) -> (i result, s value)
//              0 = set; 1 = not set, value empty
//            set (s key, s value) -> (i result)
//              0 = stored; 1 = not a key or not a value; -1 = not written
//            subscribe (s module, s key, i flag) -> (i result)
//              flag 1 asks for changes, 0 ends that; 0 = done, -1 = refused
//          Keys, values and their limits are config_store.h's, a module's name is module.h's.
// Notices  on every change of a key's value the method call notify_config (s key, s value) to each
//          subscriber, without waiting for an answer, on the path and interface made from its
//          name. A set to the value that the key has already is no change.
// Kept     subscriptions outlive both ends: a module that went away and came back under its name
//          is notified again, also after a restart of this program or of the bus, because a module
//          subscribes only when it starts. They are in a store of their own: key=MODULE MODULE...
// Limits   SUBSCRIPTIONS_MAX pairs of module and key; more are refused.
// Threads  one.
#pragma once

#include "devgateway/config_manager/config_store.h"

constexpr std::size_t SUBSCRIPTIONS_MAX = 1024;

// Serves until stop_fd becomes readable (0), or until the bus cannot be reached, is lost, or
// another program holds the name (-1, logged). The stores and stop_fd stay the caller's.
[[nodiscard]] int serve_config(const std::string &bus_address, CONFIG_STORE_T &store,
                               CONFIG_STORE_T &subscribers, int stop_fd);
