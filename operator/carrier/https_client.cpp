#include "operator/carrier/https_client.h"

#include "operator/carrier/api_routes.h"
#include "operator/carrier/control_client.h"
#include "operator/carrier/https_connection.h"
#include "operator/carrier/request_error.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <strings.h>

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

namespace http = boost::beast::http;
using boost::system::error_code;
using nlohmann::json;
using std::chrono::steady_clock;

struct HTTPS_CLIENT_T {
    SERVER_T server;
    URL_T url;
    TlsContextPtr tls;
    std::string authorization;
    std::mutex mutex;
    std::unique_ptr<HTTPS_CONNECTION_T> idle; // under the mutex; may be null
};

namespace {

constexpr std::size_t HEADER_MAX = 32768;
constexpr unsigned NOT_BUILT_STATUS = 501;
constexpr unsigned TOO_MANY_STATUS = 429;
constexpr char PROBLEM_TYPE[] = "application/problem+json";
constexpr char JSON_TYPE[] = "application/json";

bool startsWith(const std::string &text, const char *start)
{
    return ::strncasecmp(text.c_str(), start, std::char_traits<char>::length(start)) == 0;
}

std::unique_ptr<HTTPS_CONNECTION_T> takeIdle(HTTPS_CLIENT_T &client)
{
    const std::lock_guard<std::mutex> lock(client.mutex);
    return std::move(client.idle);
}

void keepIdle(HTTPS_CLIENT_T &client, std::unique_ptr<HTTPS_CONNECTION_T> connection)
{
    const std::lock_guard<std::mutex> lock(client.mutex);
    client.idle = std::move(connection);
}

http::request<http::string_body> requestFor(const HTTPS_CLIENT_T &client, API_REQUEST_T asked)
{
    http::request<http::string_body> request;
    request.version(11);
    request.method_string(asked.method);
    request.target(targetOf(client, asked.target));
    request.set(http::field::host, hostHeaderOf(client));
    request.set(http::field::accept, JSON_TYPE);
    if (!client.authorization.empty())
        request.set(http::field::authorization, client.authorization);
    if (asked.body.empty() && asked.method != "POST") return request;
    request.set(http::field::content_type, JSON_TYPE);
    request.body() = std::move(asked.body);
    request.prepare_payload();
    return request;
}

std::string fieldText(const http::fields &fields, http::field name)
{
    const auto value = fields[name];
    return {value.data(), value.size()};
}

struct EXCHANGE_T {
    error_code fault;
    bool has_answered = false; // a byte of the answer has come
    bool is_kept = false;      // the connection can be used again
    HTTPS_ANSWER_T answer;
};

EXCHANGE_T exchange(HTTPS_CONNECTION_T &connection, http::request<http::string_body> &request,
                    steady_clock::time_point end)
{
    EXCHANGE_T result;
    boost::beast::get_lowest_layer(*connection.stream).expires_at(end);
    result.fault = waitFor(connection.io, [&](auto handler) {
        http::async_write(*connection.stream, request, std::move(handler));
    });
    if (result.fault) return result;
    http::response_parser<http::string_body> parser;
    parser.header_limit(HEADER_MAX);
    parser.body_limit(ANSWER_MAX);
    result.fault = waitFor(connection.io, [&](auto handler) {
        http::async_read(*connection.stream, connection.received, parser, std::move(handler));
    });
    result.has_answered = parser.got_some();
    if (result.fault) return result;
    result.is_kept = parser.keep_alive();
    auto response = parser.release();
    result.answer = {response.result_int(),
                     std::string(response.reason()),
                     fieldText(response, http::field::content_type),
                     fieldText(response, http::field::location),
                     fieldText(response, http::field::retry_after),
                     std::move(response.body())};
    return result;
}

[[noreturn]] void tellFault(const HTTPS_CLIENT_T &client, const error_code &fault,
                            std::chrono::seconds time)
{
    const std::string &url = client.server.url;
    if (fault == boost::beast::error::timeout)
        throw RequestError(url + ": the back end has not answered for " +
                               std::to_string(time.count()) + " s",
                           true);
    if (fault == http::error::body_limit || fault == http::error::header_limit)
        throw RequestError(url + ": the back end's answer is too long", true);
    if (fault.category() == http::make_error_code(http::error::bad_version).category() &&
        fault != http::error::end_of_stream && fault != http::error::partial_message)
        throw RequestError(url + ": the answer is no HTTP: " + fault.message(), true);
    throw RequestError(
        url + ": the back end ended the request without an answer: " + fault.message(), true);
}

HTTPS_ANSWER_T askOnce(HTTPS_CLIENT_T &client, http::request<http::string_body> &request,
                       std::chrono::seconds time)
{
    const auto end = steady_clock::now() + time;
    auto connection = takeIdle(client);
    const bool was_idle = connection != nullptr;
    if (!was_idle) connection = openConnection(client.tls, client.url, end);
    EXCHANGE_T done = exchange(*connection, request, end);
    // The server may close a connection that is idle at any time, also just now.
    if (done.fault && was_idle && !done.has_answered && request.method() == http::verb::get &&
        done.fault != boost::beast::error::timeout) {
        connection = openConnection(client.tls, client.url, end);
        done = exchange(*connection, request, end);
    }
    if (done.fault) tellFault(client, done.fault, time);
    if (done.is_kept) keepIdle(client, std::move(connection));
    return std::move(done.answer);
}

std::string textOf(const json &object, const char *name)
{
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string loginHint(const HTTPS_CLIENT_T &client)
{
    return "; log in again with \"remote-access login " + client.server.url + "\"";
}

} // namespace

HttpsClientPtr makeHttpsClient(const SERVER_T &server)
{
    const auto url = parseUrl(server.url, "https");
    if (!url) throw RequestError(server.url + ": no URL of a back end", false);
    auto client = std::make_shared<HTTPS_CLIENT_T>();
    client->server = server;
    client->url = *url;
    client->tls = makeTlsContext(server);
    if (!server.token.empty()) client->authorization = "Bearer " + server.token;
    return client;
}

std::unique_ptr<HTTPS_CONNECTION_T> takeConnection(HTTPS_CLIENT_T &client,
                                                   steady_clock::time_point end)
{
    auto connection = takeIdle(client);
    return connection ? std::move(connection) : openConnection(client.tls, client.url, end);
}

const std::string &authorizationOf(const HTTPS_CLIENT_T &client)
{
    return client.authorization;
}

std::string hostHeaderOf(const HTTPS_CLIENT_T &client)
{
    return hostAndPort(client.url);
}

std::string targetOf(const HTTPS_CLIENT_T &client, const std::string &target)
{
    return client.url.path + API_ROOT + target;
}

void checkAnswer(const HTTPS_CLIENT_T &client, const HTTPS_ANSWER_T &answer)
{
    if (answer.status / 100 == 2) return;
    const std::string &url = client.server.url;
    const std::string status = std::to_string(answer.status) + " " + answer.reason;
    const json problem =
        startsWith(answer.type, PROBLEM_TYPE) ? json::parse(answer.body, nullptr, false) : json();
    std::string detail = problem.is_object() ? textOf(problem, "detail") : "";
    if (problem.is_object() && detail.empty()) detail = textOf(problem, "title");
    if (!detail.empty()) {
        if (answer.status == 401) detail = url + ": " + detail + loginHint(client);
        if (!answer.retry_after.empty()) detail += "; try again in " + answer.retry_after + " s";
        const bool is_early = answer.status == TOO_MANY_STATUS;
        throw RequestError(detail, false, answer.status == NOT_BUILT_STATUS,
                           std::chrono::seconds(
                               is_early ? std::strtol(answer.retry_after.c_str(), nullptr, 10) : 0),
                           textOf(problem, "kind"));
    }
    if (answer.status == 401) throw RequestError(url + ": " + status + loginHint(client), false);
    if (answer.status / 100 == 3)
        throw RequestError(url + ": " + status + " to " + answer.location +
                               "; log in at that address if it is right",
                           true);
    throw RequestError(url + ": " + status +
                           (answer.status == 404 ? " (is this the address of a back end?)" : ""),
                       true);
}

json askHttps(HTTPS_CLIENT_T &client, const json &request, std::chrono::seconds time)
{
    auto asked = requestFor(client, apiRequest(request));
    HTTPS_ANSWER_T answer;
    try {
        answer = askOnce(client, asked, time);
    } catch (...) {
        ::explicit_bzero(asked.body().data(), asked.body().size());
        throw;
    }
    ::explicit_bzero(asked.body().data(), asked.body().size()); // it may hold a password
    checkAnswer(client, answer);
    if (answer.body.empty()) return json::object();
    json document = json::parse(answer.body, nullptr, false);
    if (!document.is_object())
        throw RequestError(client.server.url +
                               ": the answer is no JSON object (is this the address of a back "
                               "end?)",
                           true);
    return document;
}
