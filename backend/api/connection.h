// One connection of the HTTPS interface: requests one after the other, each answered before the
// next is read.
// Ownership  a connection keeps itself while anything is under way; what takes its stream over
//            (event_stream, session_socket) keeps it, too, so that it stays counted.
// Threads    the thread of the io_context.
// Limits     LIMITS_T: request_time for a header and for a body, keep_alive_time between requests,
//            answer_time for an answer to be taken.
// Failure    what throws costs this connection.
#pragma once

#include "backend/api/api_port.h"
#include "backend/api/http_request.h"
#include "backend/api/reply.h"
#include "backend/api/routes.h"
#include "backend/net/tls_stream.h"

#include <array>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

namespace backend {

struct CONNECTION_T {
    CONNECTION_T(ApiPortPtr of, boost::asio::ip::tcp::socket socket, PlacePtr its_place);
    CONNECTION_T(const CONNECTION_T &) = delete;
    CONNECTION_T &operator=(const CONNECTION_T &) = delete;
    ~CONNECTION_T();

    ApiPortPtr port;
    boost::asio::ip::tcp::endpoint peer;
    std::string from;
    std::shared_ptr<TlsStream> stream;
    PlacePtr place; // null once it is an operator's
    SeatPtr seat;   // from then on
    SeatPtr stream_seat;
    boost::asio::steady_timer timer;
    std::vector<std::string> certificate_names;
    RequestReader reader;
    PRINCIPAL_T who; // of the request
    MATCH_T match{};
    std::string out; // what is written
    std::vector<char> in;
    bool is_waiting = true; // for a request's first byte
    bool is_body_read = false;
    bool is_answering = false;
    bool is_handed_over = false; // to a session
    bool is_closed = false;
};
using ConnectionPtr = std::shared_ptr<CONNECTION_T>;

void startConnection(const ApiPortPtr &port, boost::asio::ip::tcp::socket socket, PlacePtr place);

// Answers the request, and goes on with the next one.
void sendReply(const ConnectionPtr &connection, REPLY_T reply);
void sendRefusal(const ConnectionPtr &connection, const REFUSAL_T &refusal);

// What proves the operator of the request; borrows from the connection.
CREDENTIALS_T credentialsOf(CONNECTION_T &connection);

// What is under way ends with an error.
void abortConnection(CONNECTION_T &connection) noexcept;

void logConnectionGivenUp(const char *reason) noexcept;
// After a call that was made for a connection: it is given up when memory has run out meanwhile.
bool hasMemory() noexcept;

// For an operation's end: keeps the connection, and guards what `call` does with it.
template <class Call> auto guarded(const ConnectionPtr &connection, Call call)
{
    return [connection, call](const auto &...results) {
        try {
            if (connection->is_closed) return;
            call(connection, results...);
            if (hasMemory()) return;
        } catch (const std::exception &fault) {
            logConnectionGivenUp(fault.what());
        }
        abortConnection(*connection);
    };
}

} // namespace backend
