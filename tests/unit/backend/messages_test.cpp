#include "backend/devices/device_registry.h"
#include "backend/devices/handshake.h"
#include "backend/devices/protocol.h"
#include "backend/net/endpoint.h"
#include "backend/observe/log.h"
#include "backend/options.h"

#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace backend;
using testing::HasSubstr;
using testing::MatchesRegex;

static std::span<const std::uint8_t> bytesOf(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

TEST(ProtocolMessage, GoodOnesAreTakenApart)
{
    const std::string bytes =
        "{\"msg_type\": 21,\"payload_len\": 3,\"msg_id\": \"m1\",\"timestamp\":1600000000,"
        "\"token\":\"t1\"}\r\n\r\n" +
        std::string("\0}x", 3);
    MESSAGE_T message;
    ASSERT_EQ(parseMessage(bytesOf(bytes), message), nullptr);
    EXPECT_EQ(message.header.type, 21);
    EXPECT_EQ(message.header.timestamp, 1600000000);
    EXPECT_EQ(message.header.msg_id, "m1");
    EXPECT_EQ(message.header.token, "t1");
    EXPECT_EQ(std::string(message.payload.begin(), message.payload.end()), std::string("\0}x", 3));
    const std::string other =
        "{\"token\":\"\",\"x\":{\"y\":[]},\"payload_len\":0,\"msg_type\":256}\r\n\r\n";
    ASSERT_EQ(parseMessage(bytesOf(other), message), nullptr);
    EXPECT_EQ(message.header.type, 256);
    EXPECT_EQ(message.header.token, "");
}

TEST(ProtocolMessage, BadOnesAreNamed)
{
    const std::string end = "\r\n\r\n";
    const std::string long_id(64, 'a');
    const auto usual = [&](const std::string &type, const std::string &len,
                           const std::string &rest) {
        return "{\"msg_type\": " + type + ",\"payload_len\": " + len + ",\"msg_id\": \"m\"," +
               "\"timestamp\":1,\"token\":\"" + rest + end;
    };
    const struct {
        std::string text;
        const char *fault;
    } rows[] = {
        {"", "no end of the header"},
        {"{\"msg_type\":256,\"payload_len\":0}", "no end of the header"},
        {"{\"msg_type\":256,\"payload_len\":0," + std::string(1024, ' ') + "}" + end,
         "no end of the header"},
        {" {\"msg_type\":256,\"payload_len\":0}" + end, "no brace"},
        {"{\"msg_type\":256,\"payload_len\":0" + end, "no JSON object"},
        {"{\"msg_type\":256,\"payload_len\":0}x" + end, "no JSON object"},
        {"{\"payload_len\":0}" + end, "msg_type"},
        {"{\"msg_type\":\"256\",\"payload_len\":0}" + end, "msg_type"},
        {"{\"msg_type\":18446744073709551615,\"payload_len\":0}" + end, "msg_type"},
        {"{\"msg_type\":2.5,\"payload_len\":0}" + end, "msg_type"},
        {"{\"msg_type\":256}" + end, "payload_len is missing"},
        {"{\"msg_type\":21,\"payload_len\":2}" + end + "a", "differs"},
        {"{\"msg_type\":21,\"payload_len\":1}" + end + "ab", "differs"},
        {"{\"msg_type\":21,\"payload_len\":-1}" + end, "differs"},
        {"{\"msg_type\":21,\"payload_len\":0,\"token\":\"" + long_id + "\"}" + end, "token"},
        {"{\"msg_type\":21,\"payload_len\":0,\"token\":7}" + end, "token"},
        {"{\"msg_type\":21,\"payload_len\":0,\"token\":\"a\\\"b\"}" + end, "token"},
        {"{\"msg_type\":5,\"payload_len\":0,\"msg_id\":\"a}\"}" + end, "msg_id"},
        {"{\"msg_type\":1,\"payload_len\":0,\"timestamp\":\"1\"}" + end, "timestamp"},
        {"{\"msg_type\":1,\"payload_len\":0,\"msg_id\":\"\xff\"}" + end, "no JSON object"},
        {usual("021", "0", "t\"}"), "no JSON object"},
        {usual("21", "", "t\"}"), "no JSON object"},
        {usual("21", "1", "t\"}"), "differs"},
        {usual("9223372036854775808", "0", "t\"}"), "msg_type"},
        {usual("21", "0", "t\"}x"), "no JSON object"},
        {usual("21", "0", "t"), "no JSON object"},
        {usual("21", "0", "{\"}"), "token"},
        {usual("21", "0", long_id + "\"}"), "token"},
    };
    for (const auto &row : rows) {
        MESSAGE_T message;
        const char *fault = parseMessage(bytesOf(row.text), message);
        ASSERT_NE(fault, nullptr) << row.text;
        EXPECT_THAT(fault, HasSubstr(row.fault)) << row.text;
    }
}

TEST(ProtocolResponse, IsReadOrItsFaultNamed)
{
    RESPONSE_T response;
    const std::string opened =
        "{\"code\": 0, \"message\": \"new session response\"}\r\n\r\n{\"session_id\": \"abc\"}";
    ASSERT_EQ(parseResponse(bytesOf(opened), response), nullptr);
    EXPECT_EQ(response.code, 0);
    EXPECT_EQ(response.session_id, "abc");
    ASSERT_EQ(
        parseResponse(bytesOf("{\"code\": 101604, \"message\": \"m\"}\r\n\r\nnull"), response),
        nullptr);
    EXPECT_EQ(response.code, DEVICE_SESSIONS_FULL);
    EXPECT_EQ(response.message, "m");
    EXPECT_EQ(response.session_id, "");
    for (const char *text :
         {"", "null", "{\"code\":\"0\"}", "{\"message\":\"x\"}", "{\"code\":0}\r\n\r\n[1",
          "{\"code\":0}\r\n\r\n{\"session_id\":\"a b\"}"}) {
        EXPECT_NE(parseResponse(bytesOf(text), response), nullptr) << text;
    }
}

TEST(ProtocolBuild, TextsAreWhatDevicesRead)
{
    const HEADER_TEXT_T pong = buildHeader(MESSAGE_PONG, 0, "m1", 1600000000, "");
    EXPECT_EQ(std::string(pong.bytes.data(), pong.size),
              "{\"msg_type\": 257,\"payload_len\": 0,\"msg_id\": "
              "\"m1\",\"timestamp\":1600000000,\"token\":\"\"}\r\n\r\n");
    const std::string id(ID_MAX, 'i');
    const HEADER_TEXT_T longest =
        buildHeader(MESSAGE_PONG, DATA_MAX, id, std::numeric_limits<std::int64_t>::min(), id);
    EXPECT_TRUE(std::string(longest.bytes.data(), longest.size).ends_with("\"}\r\n\r\n"));
    EXPECT_LE(longest.size + DATA_MAX, MESSAGE_MAX);
    EXPECT_EQ(buildResponse(0, "ok"), "{\"code\": 0, \"message\": \"ok\"}");
    EXPECT_EQ(
        buildNewSession({"SSH", "ssh_localhost", "127.0.0.1", 22}),
        "{\"service_type\":\"SSH\",\"service_name\":\"ssh_localhost\",\"service_ip\":\"127.0.0.1\","
        "\"service_port\":22}");
    EXPECT_EQ(buildVerifyAccount("root", "a\\b{\x80"),
              "{\"username\":\"root\",\"password\":\"a\\b{\x80\"}");
    for (const std::string &bad : {std::string(), std::string("a\"b"), std::string(256, 'a')}) {
        EXPECT_EQ(buildVerifyAccount("root", bad), std::nullopt);
        EXPECT_EQ(buildVerifyAccount(bad, "x"), std::nullopt);
    }
    EXPECT_NE(buildVerifyAccount(std::string(255, 'a'), std::string(255, 'b')), std::nullopt);
}

static std::string faultOf(const std::string &text)
{
    try {
        return "accepted " + std::to_string(parseRegistry(text).size());
    } catch (const std::runtime_error &fault) {
        return fault.what();
    }
}

static std::string entry(const std::string &key, const std::string &name, const std::string &secret)
{
    return R"({"product_key":")" + key + R"(","device_name":")" + name + R"(","device_secret":")" +
           secret + "\"}";
}

// A list of one device with this member beside the usual ones.
static std::string with(const std::string &member)
{
    std::string device = entry("pk", "d", "s");
    return "{\"devices\":[" + device.insert(device.size() - 1, "," + member) + "]}";
}

static std::string labels(int count)
{
    std::string text;
    for (int i = 0; i < count; i++)
        text += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":\"v\"";
    return text;
}

TEST(DeviceRegistry, FaultsNameTheirPlace)
{
    const std::string good = entry("pk", "d", "s");
    const struct {
        std::string text;
        const char *fault;
    } rows[] = {
        {"", "line 1"},
        {"{\n\"devices\": [}", "line 2, column 13"},
        {"[]", "\"devices\""},
        {"{\"devices\":{}}", "\"devices\""},
        {"{\"devices\":[" + good + ",7]}", "devices[1]: must be an object"},
        {"{\"devices\":[{\"product_key\":\"p\",\"device_name\":\"d\"}]}",
         "devices[0].device_secret: is missing"},
        {"{\"devices\":[{\"product_key\":7}]}", "devices[0].product_key: must be a text"},
        {"{\"devices\":[" + entry("pk", "", "s") + "]}",
         "devices[0].device_name: must have 1 to 36 bytes"},
        {"{\"devices\":[" + entry("pk", std::string(37, 'd'), "s") + "]}", "must have 1 to 36"},
        {"{\"devices\":[" + entry("pk", "d", std::string(64, 's')) + "]}", "must have 1 to 63"},
        {"{\"devices\":[" + entry("pk", "a\\u000ab", "s") + "]}", "control character"},
        {"{\"devices\":[" + good + "," + entry("pk", "d", "t") + "]}",
         "devices[1]: this product_key"},
        {"{\"devices\":[" + good + "," + entry("pk2", "d", std::string(63, 's')) + "]}",
         "accepted 2"},
        {"{\"devices\":[" + entry("b", "d", "s") + "," + entry("a", "d", "s") + "," +
             entry("b", "d", "s") + "," + entry("a", "d", "s") + "]}",
         "devices[2]: this product_key"},
        {"7", "must be an object with"},
        {"{\"devices\":[]} x", "line 1"},
        {"{\"devices\":[],\"devices\":[]}", "devices: stands there twice"},
        {"{\"devices\":[[]]}", "devices[0]: must be an object"},
        {with(R"("product_key":"x")"), "devices[0].product_key: stands there twice"},
        {with(R"("x":{"y":1,"y":2})"), "devices[0].x: stands there twice"},
        {with(R"("x":{"labels":{"a":1},"devices":[7]},"z":[[{"device_name":1}]])"), "accepted 1"},
        {with(R"("x":)" + std::string(70, '[') + std::string(70, ']')), "nested too deep"},
        {with(R"("labels":{"site":"b","empty":""})"), "accepted 1"},
        {with(R"("labels":[])"), "devices[0].labels: must be an object"},
        {with(R"("labels":"x")"), "devices[0].labels: must be an object"},
        {with(R"("labels":{"site":7})"), "devices[0].labels.site: must be a text"},
        {with(R"("labels":{"site":{}})"), "devices[0].labels.site: must be a text"},
        {with(R"("labels":{"site":"a","site":"b"})"), "labels.site: stands there twice"},
        {with(R"("labels":{"":"a"})"), "the name of a label"},
        {with(R"("labels":{")" + std::string(65, 'n') + R"(":"a"})"), "the name of a label"},
        {with(R"("labels":{"site":")" + std::string(256, 'v') + R"("})"), "0 to 255 bytes"},
        {with(R"("labels":{)" + labels(16) + "}"), "accepted 1"},
        {with(R"("labels":{)" + labels(17) + "}"), "more than 16 labels"},
        {with(R"("old_secret":"o")"), "devices[0].old_secret_until: is missing"},
        {with(R"("old_secret_until":"2027-03-01T00:00:00Z")"), "old_secret: is missing"},
        {with(R"("old_secret":"o","old_secret_until":"2027-03-01T00:00:00Z")"), "accepted 1"},
        {with(R"("old_secret":"o","old_secret_until":"2027-02-29T00:00:00Z")"),
         "old_secret_until: must be a time"},
        {with(R"("old_secret":"o","old_secret_until":"2027-03-01T00:00:00+01:00")"),
         "old_secret_until: must be a time"},
    };
    for (const auto &row : rows)
        EXPECT_THAT(faultOf(row.text), HasSubstr(row.fault)) << row.text;
    std::vector<std::string> warnings;
    EXPECT_THROW(loadRegistry("/nonexistent/devices.json", warnings), std::runtime_error);
    EXPECT_THROW(loadRegistry("/", warnings), std::runtime_error);
}

TEST(DeviceRegistry, FindsByKeyAndName)
{
    const DeviceRegistry registry = parseRegistry(
        "{\"devices\":[" + entry("pk2", "d", "s2") + "," + entry("pk", "d", "s1") + "," +
        entry("a:b", "c", "s3") + "," +
        R"({"labels":{"site":"berlin","rack":""},"x":1,"product_key":"pk","device_name":"e:f",
            "device_secret":"s4","old_secret":"o","old_secret_until":"1970-01-02T00:00:01Z"}]})");
    std::string order;
    for (std::size_t i = 0; i < registry.size(); i++)
        order += registry[i].secrets.current();
    EXPECT_EQ(order, "s3s1s4s2");
    EXPECT_EQ(registry.indexAfter({"pk", "d"}), 2U);
    EXPECT_EQ(registry.indexAfter({"pk", "a"}), 1U);
    EXPECT_EQ(registry.indexAfter({"pk2", "d"}), 4U);
    EXPECT_EQ(registry.find({"pk", "d"})->secrets.current(), "s1");
    EXPECT_EQ(registry.find({"pk", "c"}), nullptr);
    const std::map<const char *, const char *> found{
        {"pk:d", "s1"}, {"pk2:d", "s2"}, {"a:b:c", "s3"}, {"c", "s3"}, {"e:f", "s4"}};
    for (const auto &[name, secret] : found)
        EXPECT_EQ(findDeviceByName(registry, name).secrets.current(), secret) << name;
    for (const char *name : {"d", "f", "", ":", "pk:", "pk3:d"})
        EXPECT_THROW(findDeviceByName(registry, name), std::runtime_error) << name;
    const REGISTERED_T &last = findDeviceByName(registry, "e:f");
    EXPECT_EQ(last.labels.find("site")->second, "berlin");
    EXPECT_EQ(last.labels.find("rack")->second, "");
    EXPECT_EQ(last.labels.find("berlin"), last.labels.end());
    EXPECT_EQ(last.labels.size(), 2U);
    EXPECT_TRUE(isSecretOf(last, "o", 86400));
    EXPECT_FALSE(isSecretOf(last, "o", 86401));
    EXPECT_TRUE(isSecretOf(last, "s4", 86401));
}

static HANDSHAKE_RESULT_T shakeHands(const DeviceRegistry &registry, const std::string &secret,
                                     std::int64_t now)
{
    const std::string payload =
        R"({"uuid":"quorvex_iot","product_key":"pk","device_name":"d","version":"2.1",)"
        R"("service_meta":[],"signmethod":"hmacsha256","sign":")" +
        signHandshake(secret, "quorvex_iot", {"pk", "d"}, now) + "\"}";
    MESSAGE_T message;
    message.header = {MESSAGE_HANDSHAKE, now, std::string(HANDSHAKE_ID), ""};
    message.payload = bytesOf(payload);
    return checkHandshake(message, registry, now);
}

TEST(Handshake, TakesTheOldSecretUntilItsTime)
{
    const DeviceRegistry registry =
        parseRegistry(with(R"("old_secret":"o","old_secret_until":"2027-03-01T00:00:00Z")"));
    constexpr std::int64_t UNTIL = 1803859200; // date -d 2027-03-01T00:00:00Z +%s
    EXPECT_EQ(shakeHands(registry, "s", UNTIL - 1).detail, "");
    EXPECT_EQ(shakeHands(registry, "s", UNTIL).code, HANDSHAKE_ACCEPTED);
    const HANDSHAKE_RESULT_T old = shakeHands(registry, "o", UNTIL - 1);
    EXPECT_EQ(old.code, HANDSHAKE_ACCEPTED);
    EXPECT_EQ(old.detail, "used its old secret, valid until 2027-03-01T00:00:00Z");
    EXPECT_EQ(shakeHands(registry, "o", UNTIL).code, HANDSHAKE_BAD_SIGNATURE);
    // What stands in for a secret that is not there must not be one.
    for (const std::string secret : {"checked for a device that is unknown", ""})
        EXPECT_EQ(shakeHands(parseRegistry(with("\"x\":1")), secret, UNTIL).code,
                  HANDSHAKE_BAD_SIGNATURE);
}

// The signatures were computed with "openssl dgst -sha256 -hmac SECRET".
TEST(HandshakeSign, EqualsIndependentOnes)
{
    EXPECT_EQ(signHandshake("secret1", "quorvex_iot", {"pk1", "dev1"}, 1600000000),
              "c7a6db3f0f11ef0ce104f068a6fe085758fdf9ecd772d0f4c2a78810e1939bd3");
    EXPECT_EQ(signHandshake(std::string(63, 'k'), "quorvex_iot", {"pk1", "dev1"}, 1600000000),
              "094f075386f4eb03696b319f9a1799f11d525e956ab8c3dfc4b81729cb326080");
    EXPECT_EQ(signHandshake("secret1", "quorvex_iot", {"produkt-\xc3\xa4", "dev1"}, 1),
              "e66e4bf68c8646aa44379e97d8cfdac797c50e378a779e0b711df4f454567b6b");
}

static HANDSHAKE_RESULT_T checkPatched(const std::string &patch, std::int64_t header_time,
                                       std::int64_t now,
                                       const std::string &id = "msg_id_for_handshake")
{
    nlohmann::json payload =
        nlohmann::json::parse(R"({"uuid":"quorvex_iot","product_key":"pk1","device_name":"dev1",
        "version":"2.1","IP":"","MAC":"","token":"","signmethod":"hmacsha256","service_meta":[
        {"service_type":"SSH","service_name":"ssh","service_ip":"127.0.0.1","service_port":22},
        {"service_type":"SSH","service_name":"a\"b","service_ip":"127.0.0.1","service_port":22},
        {"service_type":"SSH","service_name":"ssh","service_ip":"127.0.0.1","service_port":23}],
        "sign":"c7a6db3f0f11ef0ce104f068a6fe085758fdf9ecd772d0f4c2a78810e1939bd3"})");
    payload.merge_patch(nlohmann::json::parse(patch));
    const std::string text = payload.dump();
    static const DeviceRegistry registry =
        parseRegistry("{\"devices\":[" + entry("pk1", "dev1", "secret1") + "]}");
    return checkHandshake({{MESSAGE_HANDSHAKE, header_time, id, ""}, bytesOf(text)}, registry, now);
}

TEST(Handshake, ChecksEveryFieldSignAndClock)
{
    constexpr std::int64_t SIGNED = 1600000000;
    const struct {
        const char *patch;
        std::int64_t header_time;
        std::int64_t now;
        HANDSHAKE_CODE code;
    } rows[] = {
        {"{}", SIGNED, SIGNED, HANDSHAKE_ACCEPTED},
        {"{}", SIGNED + 1, SIGNED, HANDSHAKE_ACCEPTED}, // the second ended between the two readings
        {"{}", SIGNED + 2, SIGNED, HANDSHAKE_BAD_SIGNATURE},
        {"{}", SIGNED - 1, SIGNED, HANDSHAKE_BAD_SIGNATURE},
        {"{}", SIGNED, SIGNED + 300, HANDSHAKE_ACCEPTED},
        {"{}", SIGNED, SIGNED - 300, HANDSHAKE_ACCEPTED},
        {"{}", SIGNED, SIGNED + 301, HANDSHAKE_CLOCK_OFF},
        {"{}", SIGNED, SIGNED - 301, HANDSHAKE_CLOCK_OFF},
        {"{}", 0, 0, HANDSHAKE_MALFORMED},
        {"{}", std::numeric_limits<std::int64_t>::max(), SIGNED, HANDSHAKE_MALFORMED},
        {R"({"uuid":"x"})", SIGNED, SIGNED, HANDSHAKE_UNSUPPORTED},
        {R"({"version":"2.2"})", SIGNED, SIGNED, HANDSHAKE_UNSUPPORTED},
        {R"({"signmethod":"hmacmd5"})", SIGNED, SIGNED, HANDSHAKE_UNSUPPORTED},
        {R"({"device_name":"dev2"})", SIGNED, SIGNED, HANDSHAKE_BAD_SIGNATURE},
        {R"({"product_key":null})", SIGNED, SIGNED, HANDSHAKE_MALFORMED},
        {R"({"sign":7})", SIGNED, SIGNED, HANDSHAKE_MALFORMED},
        {R"({"sign":""})", SIGNED, SIGNED, HANDSHAKE_BAD_SIGNATURE},
        {R"({"sign":"C7A6DB3F0F11EF0CE104F068A6FE085758FDF9ECD772D0F4C2A78810E1939BD3"})", SIGNED,
         SIGNED, HANDSHAKE_BAD_SIGNATURE},
        {R"({"service_meta":"x"})", SIGNED, SIGNED, HANDSHAKE_MALFORMED},
        {R"({"service_meta":[{"service_type":"a","service_name":"b","service_ip":"c",)"
         R"("service_port":65536}]})",
         SIGNED, SIGNED, HANDSHAKE_MALFORMED},
    };
    for (const auto &row : rows) {
        const HANDSHAKE_RESULT_T result = checkPatched(row.patch, row.header_time, row.now);
        EXPECT_EQ(result.code, row.code)
            << row.patch << row.header_time - SIGNED << " " << result.detail;
        // The service with a quote in its name cannot be asked for; the third has the first's name.
        EXPECT_EQ(result.services.size(), row.code == HANDSHAKE_ACCEPTED ? 1U : 0U);
        if (row.code == HANDSHAKE_ACCEPTED) {
            EXPECT_EQ(result.services[0].port, 22);
            EXPECT_EQ(result.detail, "service \"a\"b\" is left out: its texts cannot be sent back; "
                                     "service \"ssh\" is announced twice, the first one counts");
        }
        EXPECT_EQ(result.signed_second, row.code == HANDSHAKE_ACCEPTED ? SIGNED : 0);
    }
    EXPECT_EQ(checkPatched("{}", SIGNED, SIGNED, "other").code, HANDSHAKE_MALFORMED);
    const HEADER_T header{MESSAGE_HANDSHAKE, SIGNED, "msg_id_for_handshake", ""};
    EXPECT_EQ(checkHandshake({header, bytesOf(std::string(60000, '['))}, {}, SIGNED).code,
              HANDSHAKE_MALFORMED);
}

TEST(Options, TextsBecomeEndpointsOrAreRefused)
{
    const FORWARD_OPTION_T forward = parseForward("2222=dev1/web/a");
    EXPECT_EQ(endpointText(forward.listen), "127.0.0.1:2222");
    EXPECT_EQ(forward.device, "dev1");
    EXPECT_EQ(forward.service, "web/a");
    EXPECT_EQ(endpointText(parseForward("[::1]:0=pk:dev1/ssh").listen), "[::1]:0");
    for (const char *bad :
         {"", "2222", "2222=dev1", "2222=/ssh", "2222=dev1/", "65536=d/s", "=d/s", "-1=d/s",
          "x:22=d/s", "::1:22=d/s", "[1.2.3.4]:22=d/s", "localhost:22=d/s"}) {
        EXPECT_THROW(parseForward(bad), std::invalid_argument) << bad;
    }
    EXPECT_THROW(parseEndpoint("4433"), std::invalid_argument);
}

TEST(Log, PeerCannotForgeALine)
{
    testing::internal::CaptureStderr();
    logWarning("%s", "a\nb\x1b\\\xc3");
    logInfo("%s", std::string(2000, 'x').c_str());
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        MatchesRegex("[0-9-]+T[0-9:.]+Z W a\\\\x0ab\\\\x1b\\\\x5c\\\\xc3\n[^ ]+ I x+\\.\\.\\.\n"));
}
