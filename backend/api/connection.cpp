#include "backend/api/connection.h"

#include "backend/api/connect.h"
#include "backend/api/event_stream.h"
#include "backend/api/openapi.h"
#include "backend/net/endpoint.h"
#include "backend/net/memory.h"
#include "backend/observe/log.h"

#include <nlohmann/json.hpp>

#include <boost/asio/write.hpp>
#include <openssl/crypto.h>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using nlohmann::json;
using tcp = asio::ip::tcp;

constexpr std::size_t READ_SIZE = std::size_t{4} * 1024; // each connection holds as much
constexpr auto LINGER_TIME = std::chrono::seconds(1);

static constinit LINE_LIMIT_T g_given_up{"operators' connections given up"};

static void readMore(const ConnectionPtr &connection);
static void readRequest(const ConnectionPtr &connection);
static void refuseSlow(const ConnectionPtr &connection);

// Of one that is gone already: no address, and the next operation fails.
static tcp::endpoint peerOf(const tcp::socket &socket)
{
    error_code ignored;
    return socket.remote_endpoint(ignored);
}

CONNECTION_T::CONNECTION_T(ApiPortPtr of, tcp::socket socket, PlacePtr its_place)
    : port(std::move(of)), peer(peerOf(socket)), from(endpointText(peer)),
      stream(std::make_shared<TlsStream>(std::move(socket), nativeContext(*port->tls))),
      place(std::move(its_place)), timer(port->io)
{
    stream->setPlace(place.get());
    port->connections.insert(this);
}

CONNECTION_T::~CONNECTION_T()
{
    port->connections.erase(this);
    OPENSSL_cleanse(in.data(), in.size()); // null while nothing was read
}

void logConnectionGivenUp(const char *reason) noexcept
{
    try {
        logLimited(g_given_up, LOG_LEVEL::WARNING, "an operator's connection is given up: %s",
                   reason);
    } catch (const std::exception &) { // no memory for the line either
        return;
    }
}

bool hasMemory() noexcept
{
    if (!wasMemoryShort()) return true;
    logConnectionGivenUp("memory has run out");
    (void)takeReserve();
    return false;
}

// ---- ends

void abortConnection(CONNECTION_T &connection) noexcept
{
    connection.is_closed = true;
    error_code ignored;
    connection.stream->next_layer().close(ignored);
    try {
        connection.timer.cancel();
    } catch (const std::exception &) { // it will find the connection closed
        return;
    }
}

static void setTimer(const ConnectionPtr &connection, std::chrono::milliseconds time,
                     void (*on_end)(const ConnectionPtr &))
{
    connection->timer.expires_after(time);
    connection->timer.async_wait(
        guarded(connection, [on_end](const ConnectionPtr &held, const error_code &stopped) {
            if (!stopped) on_end(held);
        }));
}

static void giveUp(const ConnectionPtr &connection)
{
    abortConnection(*connection);
}

// Until the client has closed: what it still sends would otherwise destroy the answer on its way.
static void drain(const ConnectionPtr &connection)
{
    connection->stream->next_layer().async_wait(
        tcp::socket::wait_read,
        guarded(connection, [](const ConnectionPtr &held, const error_code &failed) {
            error_code error = failed;
            const std::size_t count =
                error ? 0 : held->stream->next_layer().read_some(asio::buffer(held->in), error);
            if (error || count == 0) return abortConnection(*held);
            drain(held);
        }));
}

static void closeOrderly(const ConnectionPtr &connection)
{
    setTimer(connection, LINGER_TIME, giveUp);
    connection->stream->async_shutdown(
        guarded(connection, [](const ConnectionPtr &held, const error_code &) {
            error_code error;
            held->stream->next_layer().shutdown(tcp::socket::shutdown_send, error);
            if (error) return abortConnection(*held);
            held->stream->next_layer().non_blocking(true, error);
            held->in.resize(READ_SIZE);
            drain(held);
        }));
}

// ---- answers

static void nextRequest(const ConnectionPtr &connection)
{
    connection->reader.next();
    connection->is_body_read = connection->is_answering = false;
    connection->is_waiting = connection->reader.isEmpty();
    connection->match = {};
    if (connection->is_waiting) connection->in = {};
    const LIMITS_T &limits = connection->port->limits;
    if (connection->is_waiting)
        setTimer(connection, limits.keep_alive_time, giveUp);
    else
        setTimer(connection, limits.request_time, refuseSlow);
    readRequest(connection);
}

static void write(const ConnectionPtr &connection, std::string text,
                  void (*then)(const ConnectionPtr &))
{
    connection->is_answering = true;
    connection->out = std::move(text);
    setTimer(connection, connection->port->limits.answer_time, giveUp);
    asio::async_write(*connection->stream, asio::buffer(connection->out),
                      guarded(connection, [then](const ConnectionPtr &held, const error_code &error,
                                                 std::size_t) {
                          held->out = {};
                          if (error) return abortConnection(*held);
                          then(held);
                      }));
}

void sendReply(const ConnectionPtr &connection, REPLY_T reply)
{
    if (connection->is_closed) return;
    HTTP_REQUEST_T &request = connection->reader.request();
    reply.is_head = request.method == "HEAD";
    // A stranger gets one answer; what was not read of a request cannot be skipped.
    const bool keeps_alive = request.keeps_alive && !connection->place &&
                             (connection->is_body_read || !request.has_body);
    write(connection, replyText(reply, keeps_alive), keeps_alive ? nextRequest : closeOrderly);
}

void sendRefusal(const ConnectionPtr &connection, const REFUSAL_T &refusal)
{
    const FAULT fault = refusal.status == 404 ? FAULT::NOT_FOUND : FAULT::BAD_REQUEST;
    REPLY_T reply = problemReply(fault, refusal.text, refusal.status);
    if (!refusal.allow.empty()) reply.fields.emplace_back("Allow", refusal.allow);
    sendReply(connection, std::move(reply));
}

static void refuseBroken(const ConnectionPtr &connection)
{
    const HTTP_FAULT_T &fault = connection->reader.fault();
    connection->reader.request().keeps_alive = false;
    sendRefusal(connection, {fault.status, fault.text, {}});
}

static void refuseSlow(const ConnectionPtr &connection)
{
    connection->reader.request().keeps_alive = false;
    sendRefusal(connection, {408, "the request did not come in time", {}});
}

// ---- requests

static void runRequest(const ConnectionPtr &connection)
{
    HTTP_REQUEST_T &http = connection->reader.request();
    auto request = operationRequest(*connection->match.route, http);
    if (const auto *refusal = std::get_if<REFUSAL_T>(&request))
        return sendRefusal(connection, *refusal);
    const auto call = std::make_shared<CALL_T>();
    call->who = connection->who;
    call->take_client = [] { return nullptr; };
    call->answer = guarded(connection, [](const ConnectionPtr &held, const json &answer, bool) {
        REPLY_T reply = operationReply(answer);
        if (held->match.route->has_tag) tagReply(reply, held->reader.request());
        sendReply(held, std::move(reply));
    });
    connection->timer.cancel(); // an operation has its own limits
    json &document = std::get<json>(request);
    runOperation(connection->port->operations, call, document);
    wipeTexts(document);
}

static void sendDocument(const ConnectionPtr &connection)
{
    REPLY_T reply;
    reply.content_type = "application/json";
    reply.body = openapiDocument();
    tagReply(reply, connection->reader.request());
    sendReply(connection, std::move(reply));
}

static void serve(const ConnectionPtr &connection)
{
    switch (connection->match.route->serves) {
    case SERVES::DOCUMENT:
        return sendDocument(connection);
    case SERVES::OPERATION:
        return runRequest(connection);
    case SERVES::EVENTS:
        return startEventStream(connection);
    case SERVES::CONNECT:
        return startConnect(connection);
    }
}

static bool isJson(std::string_view type)
{
    constexpr std::string_view JSON = "application/json";
    type = type.substr(0, type.find(';'));
    while (type.ends_with(' '))
        type.remove_suffix(1);
    return type.size() == JSON.size() && strncasecmp(type.data(), JSON.data(), JSON.size()) == 0;
}

static void readBody(const ConnectionPtr &connection)
{
    switch (connection->reader.readBody()) {
    case READ::MORE:
        return readMore(connection);
    case READ::FAULT:
        return refuseBroken(connection);
    case READ::DONE:
        connection->is_body_read = true;
        return serve(connection);
    }
}

static void beginBody(const ConnectionPtr &connection)
{
    HTTP_REQUEST_T &request = connection->reader.request();
    if (!request.has_body) return readBody(connection);
    if (connection->match.route->body.empty() && request.method != "POST")
        return sendRefusal(connection, {400, "this request takes no body", {}});
    if (!isJson(fieldOf(request, "content-type")))
        return sendRefusal(connection, {415, "the body has to be application/json", {}});
    setTimer(connection, connection->port->limits.request_time, refuseSlow);
    if (!request.expects_continue) return readBody(connection);
    write(connection, "HTTP/1.1 100 Continue\r\n\r\n", [](const ConnectionPtr &held) {
        held->is_answering = false;
        setTimer(held, held->port->limits.request_time, refuseSlow);
        readBody(held);
    });
}

static void answerOptions(const ConnectionPtr &connection)
{
    REPLY_T reply;
    reply.status = 204;
    reply.fields.emplace_back("Allow", connection->match.allow);
    sendReply(connection, std::move(reply));
}

// ---- who asks

CREDENTIALS_T credentialsOf(CONNECTION_T &connection)
{
    return {connection.reader.request().token, connection.certificate_names, connection.from};
}

// An operator's connection is counted for him, and has no place among strangers any more.
static bool takeConnection(CONNECTION_T &connection)
{
    if (connection.seat && connection.seat->name() == connection.who.name) return true;
    connection.seat = takeSeat(connection.port->gate.connections, connection.who.name,
                               OPERATOR_CONNECTIONS_MAX, CONNECTIONS_MAX);
    if (!connection.seat) return false;
    connection.stream->setPlace(nullptr);
    connection.place.reset();
    return true;
}

// Null when the request may go on.
static std::optional<REPLY_T> checkAccess(CONNECTION_T &connection)
{
    GATE_T &gate = connection.port->gate;
    auto result =
        authenticate(gate, connection.port->operations, credentialsOf(connection), connection.peer);
    if (auto *reply = std::get_if<REPLY_T>(&result)) {
        connection.reader.request().keeps_alive = false;
        return std::move(*reply);
    }
    connection.who = std::move(std::get<PRINCIPAL_T>(result));
    if (takeConnection(connection)) return overRate(gate, connection.who.name);
    connection.reader.request().keeps_alive = false;
    return problemReply(FAULT::TOO_MANY, "too many connections of this operator, or of all");
}

static void handleHeader(const ConnectionPtr &connection)
{
    const auto found = findRoute(connection->reader.request());
    const auto *const match = std::get_if<MATCH_T>(&found);
    const bool is_open =
        match != nullptr && match->route != nullptr && match->route->serves == SERVES::DOCUMENT;
    if (!is_open) {
        auto reply = checkAccess(*connection);
        if (reply) return sendReply(connection, std::move(*reply));
    }
    if (match == nullptr) return sendRefusal(connection, std::get<REFUSAL_T>(found));
    connection->match = *match;
    if (match->is_options) return answerOptions(connection);
    beginBody(connection);
}

// ---- bytes

static void readRequest(const ConnectionPtr &connection)
{
    switch (connection->reader.readHeader()) {
    case READ::MORE:
        return readMore(connection);
    case READ::FAULT:
        return refuseBroken(connection);
    case READ::DONE:
        return handleHeader(connection);
    }
}

static void take(const ConnectionPtr &connection, std::size_t count)
{
    connection->reader.feed({connection->in.data(), count});
    OPENSSL_cleanse(connection->in.data(), count);
    if (connection->match.route != nullptr) return readBody(connection);
    if (connection->is_waiting) {
        connection->is_waiting = false;
        setTimer(connection, connection->port->limits.request_time, refuseSlow);
    }
    readRequest(connection);
}

static void readMore(const ConnectionPtr &connection)
{
    connection->in.resize(READ_SIZE);
    connection->stream->async_read_some(
        asio::buffer(connection->in),
        guarded(connection,
                [](const ConnectionPtr &held, const error_code &error, std::size_t count) {
                    if (error) return abortConnection(*held);
                    if (!held->is_answering) take(held, count); // else it came too late
                }));
}

static void handshakeDone(const ConnectionPtr &connection, const error_code &error)
{
    if (error) return abortConnection(*connection);
    connection->certificate_names = peerNames(connection->stream->native());
    readMore(connection);
}

void startConnection(const ApiPortPtr &port, tcp::socket socket, PlacePtr place)
{
    const auto connection =
        std::make_shared<CONNECTION_T>(port, std::move(socket), std::move(place));
    connection->place->whenExpelled([weak = std::weak_ptr(connection)](const char *) {
        const auto held = weak.lock();
        if (held) abortConnection(*held);
    });
    connection->stream->async_handshake(guarded(connection, handshakeDone));
}

} // namespace backend
