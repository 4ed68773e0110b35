// Names of the gateway's private bus, each in one place.
#pragma once

constexpr char BUS_ADDRESS[] = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr char BUS_NAME[] = "iot.gateway.remote_access_daemon";
constexpr char BUS_OBJECT_PATH[] = "/iot/gateway/remote_access_daemon";
