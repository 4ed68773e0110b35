// The interface's parts that need no network: paths, requests, rates and conditional answers.
#include "backend/api/http_request.h"
#include "backend/api/rate.h"
#include "backend/api/reply.h"
#include "backend/api/request_target.h"
#include "backend/api/routes.h"

#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace backend;
using nlohmann::json;
using std::chrono::seconds;

TEST(RequestTarget, DecodesOnlyWhatIsText)
{
    struct ROW_T {
        std::string_view text;
        std::optional<std::string> path;
        std::optional<std::string> query;
    };
    const std::optional<std::string> none;
    const std::vector<ROW_T> rows{{"", "", ""},
                                  {"a%2Fb%20c", "a/b c", "a/b c"},
                                  {"a+b", "a+b", "a b"},
                                  {"%e2%82%aC", "\u20ac", "\u20ac"},
                                  {"%25%34", "%4", "%4"},
                                  {"%", none, none},
                                  {"%4", none, none},
                                  {"%4g", none, none},
                                  {"%+4", none, none},
                                  {"%-1", none, none},
                                  {"%00", none, none},
                                  {"%7f", none, none},
                                  {"%0a", none, none},
                                  {"%c0%af", none, none},
                                  {"%ed%a0%80", none, none},
                                  {"%f4%90%80%80", none, none},
                                  {"%e2%82", none, none}};
    for (const ROW_T &row : rows) {
        EXPECT_EQ(percentDecode(row.text, false), row.path) << row.text;
        EXPECT_EQ(percentDecode(row.text, true), row.query) << row.text;
    }
}

// The request that the operations get, or the status of the refusal.
static std::string outcome(const std::string &method, const std::string &target,
                           const std::string &body = {})
{
    HTTP_REQUEST_T request;
    request.method = method;
    request.target = target;
    request.body = body;
    const auto found = findRoute(request);
    if (const auto *refusal = std::get_if<REFUSAL_T>(&found))
        return std::to_string(refusal->status);
    const ROUTE_T *const route = std::get<MATCH_T>(found).route;
    if (route == nullptr) return std::get<MATCH_T>(found).allow;
    const auto made = operationRequest(*route, request);
    if (const auto *refusal = std::get_if<REFUSAL_T>(&made)) return std::to_string(refusal->status);
    return std::get<json>(made).dump();
}

TEST(Routes, BecomeRequestsOfTheControlSocket)
{
    const std::string base = "/api/v1/";
    EXPECT_EQ(outcome("GET", base + "devices/p%3Agw%2F1/services/ssh"), "404");
    EXPECT_EQ(outcome("HEAD", base + "devices/p%3Agw%2F1"), R"({"device":"p:gw/1","do":"device"})");
    EXPECT_EQ(outcome("POST", base + "devices/d/services/s/host-keys", R"({"keys":["k"]})"),
              R"({"device":"d","do":"host-keys","keys":["k"],"service":"s"})");
    EXPECT_EQ(outcome("GET", base + "devices?limit=7&pattern=a+b"),
              R"({"do":"devices","limit":7,"pattern":"a b"})");
    const std::string connect = base + "devices/d/services/s/connect?";
    EXPECT_EQ(outcome("GET", connect + "keep=0a&resume=true"),
              R"({"device":"d","do":"connect","keep":"0a","resume":true,"service":"s"})");
    EXPECT_EQ(outcome("GET", connect + "keep=0a&resume=1"), "400");
    EXPECT_EQ(outcome("GET", base + "devices?limit=-1"), "400");
    EXPECT_EQ(outcome("GET", base + "devices?limit=4294967296"), "400");
    EXPECT_EQ(outcome("POST", base + "devices/d/verify", R"({"user":"u","password":"p"})"),
              R"({"device":"d","do":"verify","password":"p","user":"u"})");
    // What only the other door takes, or what would replace what the path says.
    for (const char *body : {R"({"do":"status"})", R"({"device":"other"})", R"({"shared":true})"})
        EXPECT_EQ(outcome("POST", base + "devices/d/disconnect", body), "400") << body;
    EXPECT_EQ(outcome("OPTIONS", base + "sessions/1"), "DELETE, OPTIONS");
    for (const char *path : {"/", "/api/v1", "/api/v12/whoami", "/api/v1/", "/api/v1/whoami/"})
        EXPECT_EQ(outcome("GET", path), "404") << path;
    EXPECT_EQ(outcome("get", base + "whoami"), "405");
    std::set<std::pair<std::string_view, std::string_view>> rows;
    for (const ROUTE_T &route : allRoutes())
        EXPECT_TRUE(rows.emplace(route.method, route.pattern).second) << route.pattern;
}

TEST(RateTable, GivesEachNameABurstAndNoMore)
{
    RateTable rates(3, 2);
    const RateTable::Clock::time_point start{seconds(1000)};
    const auto count = [&](const std::string &name, RateTable::Clock::time_point now) {
        int taken = 0;
        while (rates.take(name, now))
            taken++;
        return taken;
    };
    EXPECT_EQ(count("a", start), 3);
    EXPECT_EQ(count("b", start), 3);
    EXPECT_EQ(count("a", start + seconds(1)), 2);
    EXPECT_EQ(count("a", start + seconds(100)), 3);
    // Names without end cost no memory without end, and do not touch those that are there.
    for (int i = 0; i < 10000; i++)
        (void)rates.take("name " + std::to_string(i), start + seconds(100));
    EXPECT_LE(rates.size(), RATE_NAMES_MAX + 1);
    EXPECT_FALSE(rates.take("a", start + seconds(100)));
    EXPECT_FALSE(rates.take("one more", start + seconds(100)));
    EXPECT_TRUE(rates.take("one more", start + seconds(110)));
}

TEST(Reply, IsNotSentAgainToOneWhoHasIt)
{
    REPLY_T reply = jsonReply({{"a", 1}});
    HTTP_REQUEST_T request;
    tagReply(reply, request);
    ASSERT_EQ(reply.status, 200U);
    const std::string tag = reply.fields.at(0).second;
    REPLY_T other = jsonReply({{"a", 2}});
    request.fields["if-none-match"] = "\"x\", W/" + tag;
    tagReply(other, request);
    EXPECT_EQ(other.status, 200U);
    REPLY_T same = jsonReply({{"a", 1}});
    tagReply(same, request);
    EXPECT_EQ(same.status, 304U);
    EXPECT_EQ(replyText(same, true).find("\r\nContent-"), std::string::npos);
}
