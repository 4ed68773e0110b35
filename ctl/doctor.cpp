#include "ctl/doctor.h"

#include "common/bus_names.h"
#include "ctl/commands.h"
#include "ctl/output.h"
#include "platform/config_manager/config_manager.h"
#include "platform/nopoll/net_connect.h"
#include "platform/nopoll/wire.h"
#include "src/config_keys.h"
#include "src/default_cert.h"
#include "utility/text.h"

#include <array>
#include <cstdio>

namespace {

constexpr int CONFIG_TIMEOUT_MS = 2000;
constexpr int SERVICE_TIMEOUT_MS = 1000; // what the daemon gives a service

constexpr std::array<const char *, 3> VERDICT_WORDS{"OK", "WARN", "FAIL"};

struct SETTING_T {
    int result;
    std::string text;
};

SETTING_T readSetting(BUS_CLIENT_T &bus, const char *key)
{
    char *text = nullptr;
    const int result = get_config(bus.conn.get(), key, &text, CONFIG_TIMEOUT_MS);
    const HeapText owner{text};
    return {result, text != nullptr ? text : ""};
}

std::string settingOr(BUS_CLIENT_T &bus, const char *key, const char *otherwise)
{
    const SETTING_T setting = readSetting(bus, key);
    return setting.result == CONFIG_OK ? setting.text : otherwise;
}

// Why a local service takes no connection; empty when it takes one.
std::string serviceFault(const std::string &ip, int port)
{
    ws::FAILURE_T failure{};
    const std::int64_t deadline_ms = ws::monotonicMs() + SERVICE_TIMEOUT_MS;
    const auto addresses =
        ws::resolveHost(ip.c_str(), std::to_string(port).c_str(), deadline_ms, failure);
    if (!addresses || !ws::connectToAny(addresses.get(), deadline_ms, failure))
        return shown(failure.text);
    return "";
}

void print(const FINDING_T &finding)
{
    std::printf("%-4s  %-8s  %s\n", VERDICT_WORDS.at(static_cast<std::size_t>(finding.verdict)),
                finding.topic, finding.text.c_str());
    if (!finding.advice.empty()) std::printf("%-4s  %-8s  -> %s\n", "", "", finding.advice.c_str());
}

// A daemon that was refused its name does not ask for it again while the bus lives.
void addMissingDaemon(EXAMINATION_T &exam)
{
    const std::string nobody = "nobody owns " + std::string(BUS_NAME);
    if (isLockHeld())
        return addFinding(exam, VERDICT::FAIL, "daemon", nobody + ", but a daemon runs",
                          "restart remote_access_daemon, once the bus's rules let its account own "
                          "that name");
    addFinding(exam, VERDICT::FAIL, "daemon", nobody,
               "start remote_access_daemon; its log says why it ended");
}

constexpr auto CHECKS = std::to_array<void (*)(EXAMINATION_T &)>({
    checkBus,
    checkSettings,
    checkClock,
    checkLockFile,
    checkShadow,
    checkBackEnd,
    checkServices,
});

} // namespace

void addFinding(EXAMINATION_T &exam, VERDICT verdict, const char *topic, std::string text,
                std::string advice)
{
    exam.findings.push_back({verdict, topic, std::move(text), std::move(advice)});
    print(exam.findings.back()); // at once: some checks take seconds
    (void)std::fflush(stdout);
}

void checkBus(EXAMINATION_T &exam)
{
    BUS_CLIENT_T &bus = exam.bus;
    if (!connectBus(bus)) {
        return addFinding(
            exam, VERDICT::FAIL, "bus", bus.fault,
            "start the bus daemon; run this as root or as a member of the group gateway. A folder "
            "of another account: stop the bus, delete it and run systemd-tmpfiles --create");
    }
    addFinding(exam, VERDICT::OK, "bus", bus.address + " answers");
    exam.daemon = daemonProcess(bus);
    if (!exam.daemon) return addMissingDaemon(exam);
    const JsonPtr state = callForData(bus, "queryRemoteChannelState");
    const std::string process = "process " + std::to_string(*exam.daemon);
    if (!state)
        return addFinding(exam, VERDICT::FAIL, "daemon", process + " does not answer: " + bus.fault,
                          "restart remote_access_daemon");
    if (memberNumber(state.get(), "state", 0) == 1)
        return addFinding(exam, VERDICT::OK, "daemon", process + ", its channel is up");
    addFinding(exam, VERDICT::WARN, "daemon", process + ", its channel is down",
               "remote-access-ctl open, unless it is meant to be closed; else see below");
}

void checkSettings(EXAMINATION_T &exam)
{
    BUS_CLIENT_T &bus = exam.bus;
    if (!bus.conn) return;
    std::string missing;
    for (const char *key : {KEY_PRODUCT_KEY, KEY_DEVICE_NAME, KEY_DEVICE_SECRET}) {
        const SETTING_T setting = readSetting(bus, key);
        if (setting.result == CONFIG_NO_ANSWER) {
            return addFinding(exam, VERDICT::FAIL, "settings",
                              "the configuration manager does not answer, or not to this account",
                              "start it; run this as root");
        }
        if (setting.result != CONFIG_OK || setting.text.empty())
            missing += (missing.empty() ? "" : ", ") + std::string(key);
    }
    ENDPOINT_T endpoint;
    endpoint.host = shown(settingOr(bus, KEY_CLOUD_HOST, DEFAULT_HOST));
    endpoint.port = shown(settingOr(bus, KEY_CLOUD_PORT, DEFAULT_PORT));
    endpoint.cert_path = shown(settingOr(bus, KEY_CERT_PATH, DEFAULT_CERT_PATH));
    endpoint.tls =
        parse_int32(settingOr(bus, KEY_TLS_TYPE, std::to_string(DEFAULT_TLS_TYPE).c_str())) != 0;
    exam.endpoint = endpoint;
    if (!missing.empty())
        return addFinding(exam, VERDICT::FAIL, "settings", missing + " not set",
                          "set it in the configuration manager and restart the daemon");
    addFinding(exam, VERDICT::OK, "settings",
               "identity set, back end " + endpoint.host + ":" + endpoint.port);
}

void checkServices(EXAMINATION_T &exam)
{
    if (!exam.daemon) return;
    const JsonPtr data = callForData(exam.bus, "queryEdgeServicesAvailable");
    const cJSON *const list = cJSON_GetObjectItemCaseSensitive(data.get(), "serviceList");
    if (cJSON_GetArraySize(list) == 0)
        return addFinding(exam, VERDICT::WARN, "services", "none is offered yet",
                          "the daemon has not read its settings; see above");
    const cJSON *service = nullptr;
    cJSON_ArrayForEach(service, list)
    {
        const std::string name = memberText(service, "service_name");
        const std::string ip = memberText(service, "service_ip");
        const int port = memberNumber(service, "service_port", 0);
        const std::string fault = serviceFault(ip, port);
        if (fault.empty())
            addFinding(exam, VERDICT::OK, "services", name + " takes connections");
        else
            addFinding(exam, VERDICT::WARN, "services", name + ": " + fault,
                       "start the service, or take it off the service list");
    }
}

int examine(BUS_CLIENT_T &bus, const CTL_OPTIONS_T & /*options*/)
{
    EXAMINATION_T exam{bus, {}, std::nullopt, std::nullopt};
    for (const auto check : CHECKS)
        check(exam);
    for (const FINDING_T &finding : exam.findings)
        if (finding.verdict == VERDICT::FAIL) return CTL_NO;
    return CTL_YES;
}
