#include "src/handshake_request.h"
#include "src/remote_access_proxy_protocol_packet.h"
#include "src/request_payload.h"
#include "src/service_catalogue.h"
#include "tests/support/proxy_fixture.h"

#include <cstring>

namespace {

constexpr char SIGN[] = "c7a6db3f0f11ef0ce104f068a6fe085758fdf9ecd772d0f4c2a78810e1939bd3";
const std::string LONG(70, 't');

// The text as the receive buffer holds it, exactly as large as it has to be.
std::string parsed(const std::string &text)
{
    DATA_BUFFER_T buffer{};
    PROXY_HEADER_T h{};
    const auto length = static_cast<std::int32_t>(text.size());
    EXPECT_EQ(0, initDataBuffer(&buffer, std::max(length, 1)));
    EXPECT_EQ(0, appendDataBuffer(&buffer, text.data(), length));
    const bool taken = getRemoteAccessProtocolHeader(&buffer, &h) == 0;
    freeDataBuffer(&buffer);
    if (!taken) return "refused";
    EXPECT_EQ(length + 4, h.header_len) << text;
    return std::to_string(h.msg_type) + " " + std::to_string(h.service_type) + " " +
           std::to_string(h.payload_len) + " " + std::to_string(h.timestamp) + " " + h.msg_id +
           " " + h.token;
}

} // namespace

TEST(MessageHeader, IsBuiltWithinItsBuffer)
{
    char text[HEADER_BUFFER_SIZE];
    EXPECT_EQ(71 + 2 + 1 + 2 + 10 + 2, spliceProxyProtocolHeader(text, 22, 0, "m1", "s1"));
    EXPECT_EQ(wire(22, "m1", "s1"), text);
    EXPECT_EQ(71 + 3 + 1 + 30 + 10, spliceProxyProtocolHeader(text, 256, 0, nullptr, nullptr));
    EXPECT_EQ(wire(256, ID, ""), maskIds(text));
    for (const int length : {1022, 1023, 2000}) {
        std::memset(text, 'x', sizeof text);
        const std::string token(static_cast<std::size_t>(length) - 71 - 14, 't');
        EXPECT_EQ(length, spliceProxyProtocolHeader(text, 5, 0, "m1", token.c_str()));
        EXPECT_EQ(wire(5, "m1", token).substr(0, 1022), text);
        EXPECT_EQ('\0', text[1023]);
    }
}

TEST(MessageHeader, ResponsePayloadIsBuiltWithinItsBuffer)
{
    char text[60];
    EXPECT_EQ(51, spliceProxyProtocolResponsePayload(text, 0, nullptr, "verify account ok"));
    EXPECT_STREQ("{\"code\": 0, \"message\": \"verify account ok\"}\r\n\r\nnull", text);
    spliceProxyProtocolResponsePayload(text, 101604, "{}", nullptr);
    EXPECT_STREQ("{\"code\": 101604, \"message\": \"null\"}\r\n\r\n{}", text);
    EXPECT_EQ(99, spliceProxyProtocolResponsePayload(text, 0, LONG.substr(0, 69).c_str(), ""));
    EXPECT_EQ(58U, std::strlen(text));
}

TEST(MessageHeader, IsParsedByTheScannersRules)
{
    const struct {
        std::string text, expected; // type, service type, payload length, timestamp, id, token
    } rows[] = {
        {R"({"msg_type": 22,"payload_len": 7,"msg_id": "m1","timestamp":1600000000,"token":"s1"})",
         "22 0 7 1600000000 m1 s1"},
        {R"({"x":"y","token":"s1","service_type":9,"payload_len":0,"z":[1],"msg_type":4})",
         "4 9 0 0  s1"},
        {R"({"msg_type":" -5","payload_len":"-4","timestamp":"-9"})", "-5 0 -4 -9  "},
        {R"({"msg_type":-5,"payload_len":1.75,"timestamp":99999999999})", "5 0 1 2147483647  "},
        {R"({"msg_type":99999999999,"payload_len":true,"msg_id":17})", "1215752191 0 0 0 17 "},
        {R"({"msg_type":4,"payload_len":0,"token":"","token_x":"c","msg_id":""})", "4 0 0 0  c"},
        {R"({"msg_type":0,"token":null,"payload_len":9,"payload_len":3})", "0 0 3 0  payload_len"},
        {R"({"msg_type":0,"payload_len":3,"token":"a\"b"})", "0 0 3 0  a\\"},
        {R"({"msg_type":"","payload_len":0})", "refused"},
        {R"( {"msg_type":5,"payload_len":0})", "refused"},
        {R"(["msg_type":5,"payload_len":0])", "refused"},
        {R"({"payload_len":0})", "refused"},
        {R"({"msg_type":5,"msg_id":"r"})", "refused"},
        {R"({"a":{"msg_type":4},"payload_len":0})", "refused"}, // ends at the first brace
    };
    for (const auto &[text, expected] : rows) {
        EXPECT_EQ(expected, parsed(text)) << text;
        const std::string lines =
            "2 header json formate error:  " + text + " |2 parse proxy header failed: " + text;
        EXPECT_EQ(expected == "refused" ? lines : "", fake_logger::take());
    }
    const std::string whole = R"({"msg_type":4,"payload_len":0})";
    PROXY_HEADER_T header{};
    EXPECT_EQ("refused", parsed(whole.substr(0, 14) + '\0' + whole.substr(14)));
    EXPECT_EQ(-1, parseProxyProtocolHeader(whole.c_str(), 29, &header)); // the brace lies behind
    EXPECT_EQ(-1, parseProxyProtocolHeader(nullptr, 0, &header));
    EXPECT_EQ(-1, parseProxyProtocolHeader(whole.c_str(), 30, nullptr));
}

TEST(Handshake, PayloadIsBuiltIfThereIsRoom)
{
    const std::string expected =
        R"({"uuid": "quorvex_iot","product_key": "pk1","device_name": "dev1","version":"2.1",)"
        R"("IP":"","MAC":"","token":"", "service_meta": [{}],)"
        R"("signmethod": "hmacsha256", "sign": ")" +
        std::string{SIGN} + "\"}";
    const std::size_t room = 11 + 3 + 4 + 4 + 64 + 166;
    std::vector<char> dst(room + 1, 'x');
    EXPECT_EQ(expected.size(), static_cast<std::size_t>(spliceProxyProtocolHandShakePayload(
                                   dst, "pk1", "dev1", "secret1", "[{}]")));
    EXPECT_EQ(expected, dst.data());
    EXPECT_EQ('\0', dst.back());
    EXPECT_EQ("0 sign string is :  clientIdquorvex_iotdeviceNamedev1productKeypk1"
              "timestamp1600000000|0 handshake payload: " +
                  expected,
              fake_logger::take(0));
    dst.resize(room);
    EXPECT_EQ(-1, spliceProxyProtocolHandShakePayload(dst, "pk1", "dev1", "secret1", "[{}]"));
    EXPECT_EQ("3 cloud channel hand shake payload is longer than buffer", fake_logger::take());
}

TEST(Handshake, TimesPast2038AreTold)
{
    char text[HEADER_BUFFER_SIZE];
    fake_clock::setWall(5000000000);
    spliceProxyProtocolHeader(text, 256, 0, "m1", "");
    (void)calc_sign("c", "d", "p", "s");
    fake_clock::setWall(fake_clock::WALL_S);
    EXPECT_THAT(text, testing::HasSubstr("\"timestamp\":5000000000,"));
    EXPECT_EQ("0 sign string is :  clientIdcdeviceNamedproductKeyptimestamp5000000000",
              fake_logger::take(0));
}

TEST(Handshake, ListsTheServicesAsOneArray)
{
    const std::string type(15, 'T'), name(31, 'n'), ip(23, '1'); // the longest
    const std::string element = "{\"service_type\":\"" + type + "\",\"service_name\":\"" + name +
                                "\",\"service_ip\":\"" + ip + "\",\"service_port\":65535}";
    LIST_LINK_T list;
    list_init(&list);
    EXPECT_STREQ(R"([{"service_type":"SSH","service_name":"ssh_localhost",)"
                 R"("service_ip":"127.0.0.1","service_port":22}])",
                 spliceLocalServiceInfoContent(&list).get());
    std::string expected;
    SERVICE_INFO_T entries[20] = {};
    for (SERVICE_INFO_T &entry : entries) {
        entry.service_port = 65535;
        type.copy(entry.service_type, 15);
        name.copy(entry.service_name, 31);
        ip.copy(entry.service_ip, 23);
        list_add(&entry.list_link, &list);
        expected += (expected.empty() ? "" : ",") + element;
        EXPECT_EQ("[" + expected + "]", spliceLocalServiceInfoContent(&list).get());
    }
}

TEST(RequestPayload, NewSessionFallsBackToLocalSsh)
{
    const std::string fallback = "SSH ssh_localhost 127.0.0.1 22";
    const std::pair<std::string, std::string> rows[] = {
        {"{}", fallback},
        {R"({"service_port":"80","service_ip":7})", fallback},
        {R"({"service_port":8080,"service_ip":"10.0.0.1","service_name":"web","service_type":"H"})",
         "H web 10.0.0.1 8080"},
        {R"({"service_port":99999999999,"service_ip":"","service_name":"a\"b"})",
         "SSH a\\ 127.0.0.1 1215752191"},
        {R"({"service_type":"1234567890123456","service_ip":"255.255.255.2551","service_name":")" +
             LONG + "\"}",
         "123456789012345 " + LONG.substr(0, 31) + " 255.255.255.255 22"}};
    for (const auto &[payload, expected] : rows) {
        NEW_SESSION_REQ_T r{};
        const auto length = static_cast<std::int32_t>(payload.size());
        parseProxyProtocolNewSessionPayload(payload.c_str(), length, &r);
        EXPECT_EQ(expected, std::string{r.service_type} + " " + r.service_name + " " +
                                r.service_ip + " " + std::to_string(r.service_port));
        EXPECT_EQ("1 new session payload: " + payload, fake_logger::take());
    }
    NEW_SESSION_REQ_T untouched{};
    parseProxyProtocolNewSessionPayload(nullptr, 5, &untouched);
    EXPECT_EQ(0, untouched.service_name[0] + untouched.service_port);
    EXPECT_EQ("", fake_logger::take());
}
