// What ssh needs to trust the two ends of a session: the host keys that a device has shown, and
// certificates for operators.
#include "backend/operations/access.h"
#include "backend/operations/verbs.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

// ---- host keys

static HOST_KEY_PLACE_T placeOf(const CALL_T &call)
{
    const DEVICE_KEY_T &device = *call.arguments.device;
    return {device.product_key, device.device_name, call.arguments.service};
}

static std::string nameOf(const CALL_T &call)
{
    return call.arguments.device->device_name + "/" + call.arguments.service;
}

static void requireStore(const OPERATIONS_T &operations)
{
    if (operations.host_keys.store == nullptr)
        throw OperationFault(FAULT::NOT_BUILT, "this back end has no --store to keep host keys in");
}

static void answerKeys(const OPERATIONS_T &operations, const CALL_T &call)
{
    json keys = json::array();
    if (const auto *const known = findHostKeys(operations.host_keys, placeOf(call)))
        for (const HOST_KEY_T &key : *known)
            keys.push_back({{"type", key.type},
                            {"key", key.key},
                            {"seen", key.seen_ms / 1000},
                            {"who", key.who}});
    call.answer({{"ok", true}, {"keys", std::move(keys)}}, true);
}

// "TYPE FINGERPRINT, ...", for the audit.
static std::string textOf(const std::vector<PUBLIC_KEY_T> &keys)
{
    std::string text;
    for (const PUBLIC_KEY_T &key : keys)
        text += (text.empty() ? "" : ", ") + key.type + " " + key.fingerprint;
    return text;
}

static std::string textOf(const std::vector<HOST_KEY_T> &keys)
{
    std::vector<PUBLIC_KEY_T> parsed;
    parsed.reserve(keys.size());
    for (const HOST_KEY_T &key : keys)
        parsed.push_back(parsePublicKey(key.type + " " + key.key, KEY_OWNER::HOST));
    return textOf(parsed);
}

// One type that is known and none that differs. A key of a new type proves nothing: whoever shows
// it may have copied the known one, which is public.
static bool areTheSame(const std::vector<HOST_KEY_T> &known, const std::vector<PUBLIC_KEY_T> &shown)
{
    std::size_t same = 0;
    for (const PUBLIC_KEY_T &key : shown) {
        const auto record = std::find_if(known.begin(), known.end(), [&](const HOST_KEY_T &one) {
            return one.type == key.type;
        });
        if (record == known.end()) continue;
        if (record->key != key.key) return false;
        same++;
    }
    return same > 0;
}

static void refuseChanged(const std::vector<HOST_KEY_T> &known, const CALL_T &call)
{
    AuditMembers record = recordOf(call);
    record.emplace_back("keys", textOf(call.arguments.host_keys));
    record.emplace_back("known", textOf(known));
    auditRecord(AUDIT_EVENT::HOST_KEY_CHANGED, record);
    throw OperationFault(
        FAULT::CONFLICT,
        "the host key of " + nameOf(call) +
            " has changed: someone may be between, or the gateway was installed anew. After "
            "checking which: remote-access ssh-known-hosts " +
            nameOf(call) + " --forget");
}

// True: they are answered, or refused.
static bool settleKnown(const OPERATIONS_T &operations, const CALL_T &call)
{
    const auto *const known = findHostKeys(operations.host_keys, placeOf(call));
    if (known == nullptr) return false;
    if (!areTheSame(*known, call.arguments.host_keys)) refuseChanged(*known, call);
    answerKeys(operations, call);
    return true;
}

static void keepShown(OPERATIONS_T &operations, const CallPtr &call)
{
    if (settleKnown(operations, *call)) return; // somebody else was first, meanwhile
    std::vector<HOST_KEY_T> shown;
    shown.reserve(call->arguments.host_keys.size());
    for (const PUBLIC_KEY_T &key : call->arguments.host_keys)
        shown.push_back({key.type, key.key, wallClockMs(), call->who.name});
    addHostKeys(operations.host_keys, placeOf(*call), std::move(shown),
                [&operations, call](bool is_durable) {
                    if (is_durable) return answerKeys(operations, *call);
                    refuse(*call, FAULT::UNAVAILABLE, "the store cannot be written");
                });
}

static void keepGuarded(OPERATIONS_T &operations, const CallPtr &call)
{
    try {
        keepShown(operations, call);
    } catch (const OperationFault &fault) {
        refuse(*call, fault.fault, fault.what());
    } catch (const std::exception &fault) {
        refuse(*call, FAULT::UNAVAILABLE, fault.what());
    }
}

void learnHostKeys(OPERATIONS_T &operations, const CallPtr &call)
{
    requireStore(operations);
    if (call->arguments.host_keys.empty()) return answerKeys(operations, *call);
    if (settleKnown(operations, *call)) return;
    if (hasMostServices(operations.host_keys, placeOf(*call)))
        throw OperationFault(FAULT::CONFLICT, "the host keys of " +
                                                  std::to_string(HOST_KEY_SERVICES_MAX) +
                                                  " services of this device are kept, and no more");
    AuditMembers record = recordOf(*call);
    record.emplace_back("keys", textOf(call->arguments.host_keys));
    auditRecord(AUDIT_EVENT::HOST_KEY_FIRST, record, [&operations, call](bool is_recorded) {
        if (is_recorded) return keepGuarded(operations, call);
        refuse(*call, FAULT::UNAVAILABLE, "the audit cannot be written");
    });
}

void forgetShownKeys(OPERATIONS_T &operations, const CallPtr &call)
{
    requireStore(operations);
    forgetHostKeys(operations.host_keys, placeOf(*call), [call](bool is_durable) {
        if (!is_durable)
            return refuse(*call, FAULT::UNAVAILABLE,
                          "they are forgotten until the back end starts again: the store cannot "
                          "be written");
        call->answer({{"ok", true}}, true);
    });
}

// ---- certificates

static bool isPlain(const std::string &name)
{
    return std::all_of(name.begin(), name.end(), [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-';
    });
}

// ACCOUNT@DEVICE_NAME. A gateway knows itself by its name, so that must be one's only; and a comma
// in it would add a principal.
static std::vector<std::string> principalsFor(const OPERATIONS_T &operations, const CALL_T &call)
{
    const DEVICE_KEY_T &device = *call.arguments.device;
    if (!isPlain(device.device_name))
        throw OperationFault(FAULT::CONFLICT,
                             "no certificate can be made for a device whose name has other "
                             "characters than letters, digits, \".\", \"_\" and \"-\"");
    if (findDevices(operations.directory, device.device_name).size() > 1)
        throw OperationFault(FAULT::CONFLICT, "no certificate can be made: several devices are "
                                              "named " +
                                                  device.device_name);
    std::vector<std::string> principals;
    if (operations.policy)
        principals =
            sshAccounts(*operations.policy, call.who,
                        {&device, labelsOf(operations.directory, device), call.arguments.service});
    if (principals.empty())
        throw OperationFault(FAULT::DENIED,
                             "no grant names an account of " + nameOf(call) +
                                 " for you (\"ssh_accounts\"), so there is no certificate");
    for (std::string &principal : principals)
        principal += "@" + device.device_name;
    return principals;
}

// Unique over restarts, too, as long as the clock is right, and exact as a number of JSON.
static std::uint64_t nextSerial(OPERATIONS_T &operations)
{
    const auto now = static_cast<std::uint64_t>(wallClockMs()) * 1000;
    operations.last_serial = std::max(operations.last_serial + 1, now);
    return operations.last_serial;
}

static CERTIFICATE_ORDER_T orderFor(OPERATIONS_T &operations, const CALL_T &call)
{
    constexpr std::int64_t CLOCK_SLACK_S = 60; // that the gateway's clock may be behind
    const std::int64_t now = wallClockMs() / 1000;
    const PUBLIC_KEY_T &key = call.arguments.public_key;
    CERTIFICATE_ORDER_T order;
    order.public_key = key.type + " " + key.key;
    order.principals = principalsFor(operations, call);
    order.serial = nextSerial(operations);
    order.identity = call.who.name + " " + std::to_string(order.serial);
    order.begins = now - CLOCK_SLACK_S;
    order.expires = now + operations.certificate_life.count();
    if (call.who.expires != 0) order.expires = std::min(order.expires, call.who.expires);
    return order;
}

static void signRecorded(OPERATIONS_T &operations, const CallPtr &call,
                         const CERTIFICATE_ORDER_T &order)
{
    const auto answer = [call, order](const SIGNED_T &made) {
        if (!made.fault.empty())
            return refuse(*call, FAULT::UNAVAILABLE, "no certificate was made: " + made.fault);
        call->answer({{"ok", true},
                      {"certificate", made.certificate},
                      {"serial", order.serial},
                      {"principals", order.principals},
                      {"expires", order.expires}},
                     true);
    };
    if (!orderCertificate(*operations.ssh_authority, order, answer))
        refuse(*call, FAULT::TOO_MANY, "too many certificates are being made");
}

void signKey(OPERATIONS_T &operations, const CallPtr &call)
{
    if (!operations.ssh_authority)
        throw OperationFault(FAULT::NOT_BUILT, "this back end has no --ssh-ca to sign with");
    const CERTIFICATE_ORDER_T order = orderFor(operations, *call);
    AuditMembers record = recordOf(*call);
    record.emplace_back("key", call->arguments.public_key.fingerprint);
    record.emplace_back("serial", order.serial);
    std::string principals;
    for (const std::string &principal : order.principals)
        principals += (principals.empty() ? "" : ", ") + principal;
    record.emplace_back("principals", principals);
    record.emplace_back("seconds",
                        static_cast<std::uint64_t>(order.expires - wallClockMs() / 1000));
    auditRecord(AUDIT_EVENT::SSH_CERTIFICATE, record, [&operations, call, order](bool is_recorded) {
        if (is_recorded) return signRecorded(operations, call, order);
        refuse(*call, FAULT::UNAVAILABLE, "the audit cannot be written");
    });
}

} // namespace backend
