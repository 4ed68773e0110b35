// The keys of the settings in the configuration manager, and their defaults.
// docs/operating.md explains them. The default host is set when the program is built.
#pragma once

constexpr char KEY_PRODUCT_KEY[] = "gw_system_productkey";
constexpr char KEY_DEVICE_NAME[] = "gw_system_devicename";
constexpr char KEY_DEVICE_SECRET[] = "gw_system_devicesecret";
constexpr char KEY_CERT_PATH[] = "gw_remoteaccess_cert_path";
constexpr char KEY_CLOUD_HOST[] = "gw_remoteaccess_cloud_host";
constexpr char KEY_CLOUD_PORT[] = "gw_remoteaccess_cloud_port";
constexpr char KEY_TLS_TYPE[] = "gw_remoteaccess_tls_type";
constexpr char KEY_DEBUG_SWITCH[] = "gw_remoteaccess_debug_switch";
constexpr char KEY_TRANS_TIMEOUT[] = "gw_remoteaccess_trans_timeout";
constexpr char KEY_LONG_CONNECTION[] = "gw_system_cloud_long_connection";
constexpr char KEY_TCP_KEEPALIVE[] = "gw_remoteaccess_tcp_keepalive_period";
constexpr char KEY_PING_PERIOD[] = "gw_remoteaccess_ping_period";

constexpr char DEFAULT_HOST[] = RA_DEFAULT_CLOUD_HOST;
constexpr char DEFAULT_PORT[] = "443";
constexpr int DEFAULT_TLS_TYPE = 1;
constexpr int DEFAULT_DEBUG_SWITCH = 0;
constexpr int DEFAULT_TRANS_TIMEOUT_MS = 2000;
constexpr int DEFAULT_LONG_CONNECTION = 1;
constexpr int DEFAULT_TCP_KEEPALIVE_S = 5;
constexpr int DEFAULT_PING_PERIOD_S = 80;
