// Checks of the way to the back end, taken with the code that the daemon's own channel uses.
#include "ctl/doctor.h"
#include "ctl/output.h"
#include "platform/nopoll/net_connect.h"
#include "platform/nopoll/tls_link.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <openssl/x509.h>

namespace {

constexpr std::int64_t STEP_TIMEOUT_MS = 10000; // of an opening
constexpr std::int64_t SLOW_LOOK_UP_MS = 2000;
constexpr int FEW_DAYS = 30;

// Days that the certificate and those above it stay valid, the fewest.
int daysLeft(SSL *ssl)
{
    int fewest = INT_MAX;
    STACK_OF(X509) *const chain = SSL_get0_verified_chain(ssl);
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        int days = 0;
        int seconds = 0;
        const ASN1_TIME *const end = X509_get0_notAfter(sk_X509_value(chain, i));
        if (ASN1_TIME_diff(&days, &seconds, nullptr, end) == 1) fewest = std::min(fewest, days);
    }
    return fewest;
}

void checkTls(EXAMINATION_T &exam, const ENDPOINT_T &endpoint, ws::WIRE_T &wire)
{
    ws::TLS_SETTINGS_T settings;
    settings.ca_certificate.reset(::strdup(endpoint.cert_path.c_str()));
    ws::TLS_LINK_T link;
    ws::FAILURE_T failure{};
    if (!ws::prepareTls(link, settings, endpoint.host.c_str(), wire, failure) ||
        !ws::shakeHands(link, wire, ws::monotonicMs() + STEP_TIMEOUT_MS, failure)) {
        return addFinding(
            exam, VERDICT::FAIL, "tls", shown(failure.text),
            "the CA file is " + endpoint.cert_path +
                "; chain, name and dates of the back end's certificate have to fit it");
    }
    addFinding(exam, VERDICT::OK, "tls",
               std::string(SSL_get_version(link.ssl.get())) + ", the certificate is accepted for " +
                   endpoint.host);
    const int days = daysLeft(link.ssl.get());
    const std::string text =
        "the certificate chain is valid for " + std::to_string(days) + " more days";
    if (days < FEW_DAYS)
        addFinding(exam, VERDICT::WARN, "expiry", text, "have the back end's certificate renewed");
    else
        addFinding(exam, VERDICT::OK, "expiry", text);
    ws::shutDownTls(link);
    (void)ws::flushWire(wire); // a close alert that does not arrive does no harm
}

} // namespace

void checkBackEnd(EXAMINATION_T &exam)
{
    if (!exam.endpoint) return;
    const ENDPOINT_T &endpoint = *exam.endpoint;
    ws::FAILURE_T failure{};
    const std::int64_t start_ms = ws::monotonicMs();
    const auto addresses = ws::resolveHost(endpoint.host.c_str(), endpoint.port.c_str(),
                                           start_ms + STEP_TIMEOUT_MS, failure);
    if (!addresses)
        return addFinding(exam, VERDICT::FAIL, "resolver", shown(failure.text),
                          "look at /etc/resolv.conf and at gw_remoteaccess_cloud_host");
    const std::int64_t took_ms = ws::monotonicMs() - start_ms;
    const std::string look_up = endpoint.host + " resolves in " + std::to_string(took_ms) + " ms";
    if (took_ms >= SLOW_LOOK_UP_MS)
        addFinding(exam, VERDICT::WARN, "resolver", look_up,
                   "a name server in /etc/resolv.conf does not answer");
    else
        addFinding(exam, VERDICT::OK, "resolver", look_up);
    ws::WIRE_T wire;
    wire.socket = ws::connectToAny(addresses.get(), ws::monotonicMs() + STEP_TIMEOUT_MS, failure);
    if (!wire.socket)
        return addFinding(exam, VERDICT::FAIL, "back end", shown(failure.text),
                          "check the route, the firewall and gw_remoteaccess_cloud_port (" +
                              endpoint.port + ")");
    addFinding(exam, VERDICT::OK, "back end", "port " + endpoint.port + " takes connections");
    if (endpoint.tls) return checkTls(exam, endpoint, wire);
    addFinding(exam, VERDICT::WARN, "tls",
               "switched off: all traffic is readable, the back end unchecked",
               "set gw_remoteaccess_tls_type to 1");
}
