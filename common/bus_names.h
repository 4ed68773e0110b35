// Names of the gateway's private bus, each in one place.
#pragma once

constexpr char BUS_ADDRESS[] = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr char BUS_NAME[] = "iot.gateway.remote_access_daemon";
constexpr char BUS_OBJECT_PATH[] = "/iot/gateway/remote_access_daemon";

// The MQTT bridge; its interface has the same name.
constexpr char BRIDGE_NAME[] = "iot.bridge.mqtt";
constexpr char BRIDGE_OBJECT_PATH[] = "/iot/bridge/mqtt";
