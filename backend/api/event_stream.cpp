#include "backend/api/event_stream.h"

#include "backend/observe/audit_line.h"
#include "backend/observe/events.h"
#include "backend/operations/access.h"

#include <array>

#include <boost/asio/write.hpp>
#include <nlohmann/json.hpp>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using nlohmann::ordered_json;

struct EVENT_STREAM_T {
    explicit EVENT_STREAM_T(ConnectionPtr on) : connection(std::move(on)) {}
    ConnectionPtr connection;
    SubscriptionPtr subscription;
    std::string waiting;                              // behind what is written
    std::chrono::steady_clock::time_point written_at; // the begin of the write that is under way
    bool write_active = false;
};
using EventStreamPtr = std::shared_ptr<EVENT_STREAM_T>;

static void end(EVENT_STREAM_T &stream)
{
    stream.subscription.reset();
    abortConnection(*stream.connection);
}

template <class Call> static auto guardedStream(const EventStreamPtr &stream, Call call)
{
    return guarded(stream->connection,
                   [stream, call](const ConnectionPtr &, const auto &...results) {
                       call(stream, results...);
                   });
}

// ---- text

static const char *nameOf(EVENT kind)
{
    switch (kind) {
    case EVENT::DEVICE_CONNECTED:
        return "device-connected";
    case EVENT::DEVICE_DISCONNECTED:
        return "device-disconnected";
    case EVENT::SESSION_BEGUN:
        return "session-begun";
    case EVENT::SESSION_ENDED:
        return "session-ended";
    }
    return "";
}

static std::string textOf(const EVENT_T &event)
{
    ordered_json data = {{"time", auditTime()},
                         {"product", event.device.product_key},
                         {"device", event.device.device_name}};
    const std::array<std::pair<const char *, const std::string *>, 4> texts{
        {{"service", &event.service},
         {"session", &event.session},
         {"who", &event.who},
         {"reason", &event.reason}}};
    for (const auto &[name, text] : texts)
        if (!text->empty()) data[name] = *text;
    return std::string("event: ") + nameOf(event.kind) +
           "\ndata: " + data.dump(-1, ' ', true, ordered_json::error_handler_t::replace) + "\n\n";
}

// ---- writing

static void writeWaiting(const EventStreamPtr &stream)
{
    if (stream->write_active || stream->waiting.empty()) return;
    CONNECTION_T &connection = *stream->connection;
    connection.out = std::exchange(stream->waiting, {});
    stream->write_active = true;
    stream->written_at = std::chrono::steady_clock::now();
    asio::async_write(
        *connection.stream, asio::buffer(connection.out),
        guardedStream(stream, [](const EventStreamPtr &held, const error_code &error, std::size_t) {
            held->write_active = false;
            held->connection->out.clear();
            if (error) return end(*held);
            writeWaiting(held);
        }));
}

static void offer(const EventStreamPtr &stream, std::string_view text)
{
    if (stream->connection->is_closed) return;
    if (stream->waiting.size() + stream->connection->out.size() + text.size() > STREAM_BACKLOG)
        return end(*stream);
    stream->waiting += text;
    writeWaiting(stream);
}

static bool mayKnow(const CONNECTION_T &connection, const EVENT_T &event)
{
    return decideFor(connection.port->operations, connection.who, RIGHT::LIST, &event.device,
                     event.service)
        .isAllowed();
}

// ---- what ends it

// Its client sends nothing more, so only its end shows.
static void watchReader(const EventStreamPtr &stream)
{
    CONNECTION_T &connection = *stream->connection;
    connection.in.resize(64);
    connection.stream->async_read_some(
        asio::buffer(connection.in),
        guardedStream(stream, [](const EventStreamPtr &held, const error_code &, std::size_t) {
            end(*held);
        }));
}

static bool canStillSignIn(CONNECTION_T &connection)
{
    const auto who = signIn(connection.port->operations, credentialsOf(connection));
    return who && who->name == connection.who.name;
}

static bool isStuck(const EVENT_STREAM_T &stream)
{
    return stream.write_active && std::chrono::steady_clock::now() - stream.written_at >
                                      stream.connection->port->limits.answer_time;
}

static void beat(const EventStreamPtr &stream)
{
    CONNECTION_T &connection = *stream->connection;
    connection.timer.expires_after(HEARTBEAT);
    connection.timer.async_wait(
        guardedStream(stream, [](const EventStreamPtr &held, const error_code &stopped) {
            if (stopped) return;
            if (isStuck(*held) || !canStillSignIn(*held->connection)) return end(*held);
            offer(held, ": still here\n\n");
            beat(held);
        }));
}

void startEventStream(const ConnectionPtr &connection)
{
    connection->stream_seat = takeSeat(connection->port->gate.streams, connection->who.name,
                                       OPERATOR_STREAMS_MAX, CONNECTIONS_MAX);
    if (!connection->stream_seat)
        return sendReply(connection,
                         problemReply(FAULT::TOO_MANY, "too many event streams of this operator"));
    const auto stream = std::make_shared<EVENT_STREAM_T>(connection);
    stream->subscription = subscribe([weak = std::weak_ptr(stream)](const EVENT_T &event) {
        const auto held = weak.lock();
        if (held && mayKnow(*held->connection, event)) offer(held, textOf(event));
    });
    connection->is_answering = true;
    offer(stream, streamHead("text/event-stream") + ": what happens from now on\n\n");
    beat(stream);
    watchReader(stream);
}

} // namespace backend
