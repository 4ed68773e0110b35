#include "backend/admin/gateway_settings.h"

#include "backend/admin/certificates.h"

#include <stdexcept>

namespace backend {

constexpr std::size_t HOST_MAX = 135; // a gateway keeps no more of these two
constexpr std::size_t CA_PATH_MAX = 68;

static std::string hostOf(const INSTALLATION_T &installation, const GATEWAY_T &gateway)
{
    if (!gateway.host.empty()) return gateway.host;
    if (installation.cert.empty())
        throw std::runtime_error("--host is required: no certificate is named that would say it");
    const auto names = certificateNames(installation.cert);
    if (names.empty())
        throw std::runtime_error("--host is required: " + installation.cert +
                                 " is for no other machine than this one");
    return names.front();
}

std::string gatewaySettings(const INSTALLATION_T &installation, const GATEWAY_T &gateway,
                            const DEVICE_KEY_T &device, std::string_view secret)
{
    const std::size_t colon = installation.listen.rfind(':');
    if (colon == std::string::npos)
        throw std::runtime_error("--listen or --config is required: it says the port");
    const std::string host = hostOf(installation, gateway);
    if (host.size() > HOST_MAX || gateway.ca_path.size() > CA_PATH_MAX)
        throw std::runtime_error("a gateway takes 135 characters of a host, and 68 of a path");
    std::string text = "# Settings of " + device.product_key + ":" + device.device_name + "\n";
    const auto add = [&text](const char *key, std::string_view value) {
        text.append(key).append("=").append(value).append("\n");
    };
    add("gw_system_productkey", device.product_key);
    add("gw_system_devicename", device.device_name);
    add("gw_system_devicesecret", secret);
    add("gw_remoteaccess_cloud_host", host);
    add("gw_remoteaccess_cloud_port", installation.listen.substr(colon + 1));
    if (!installation.is_plain) {
        text += "# The CA's certificate has to be copied there.\n";
        add("gw_remoteaccess_cert_path", gateway.ca_path);
    }
    add("gw_remoteaccess_tls_type", installation.is_plain ? "0" : "1");
    return text;
}

} // namespace backend
