// A session's client over a WebSocket of the HTTPS interface. Binary frames carry the session's
// bytes, their borders mean nothing; text frames are JSON:
//   client: {"end":"sending"}                                        no bytes follow from it
//   server: {"ended":REASON,"whole":true,"bytes_up":N,"bytes_down":N} and then a close frame with
//           1000 when the session is whole, else 4000, and the reason's first 123 bytes;
//           "final":true when a kept session cannot be resumed
// Course     the door makes it from a parsed request and gives its client to the operation
//            "connect". Once that has a number, openSessionSocket answers 101. Until then, and when
//            the session is refused, nothing touches the connection: the door answers.
// Ownership  from openSessionSocket on the connection is the socket's alone; it lets go of it when
//            the connection has been closed.
// Threads    the thread of the io_context.
// Limits     a client that does not take the end, or does not answer it, is cut off: after
//            LIMITS_T::stall_time when the session was whole, else after drain_time. One that has
//            answered has drain_time to close its connection. Messages of up to 64 KiB from the
//            client, no compression. It is read only while the session asks, so that it cannot send
//            more than the device takes.
// Failure    a client that breaks the protocol is closed with 1002, 1003, 1007, 1008 or 1009; its
//            session ends with a reason that says so, as when its connection is lost.
#pragma once

#include "backend/sessions/session_client.h"

#include <functional>
#include <memory>
#include <string>

#include <boost/beast/http/message.hpp>

namespace backend {

class TlsStream;
struct LIMITS_T;

constexpr char SESSION_PROTOCOL[] = "remote-access.v1";           // Sec-WebSocket-Protocol
constexpr char SESSION_NUMBER_HEADER[] = "Remote-Access-Session"; // of the answer
constexpr char SESSION_KEPT_HEADER[] = "Remote-Access-Kept";      // "1", of a kept one

using UpgradeRequest = boost::beast::http::request_header<>;

// Throws OperationFault when the request cannot become a session's WebSocket: it is no upgrade to
// WebSocket version 13, offers protocols without ours, or comes from a page of another site (a
// browser would add the operator's certificate to it). A request that has bytes behind it is to be
// refused, too: a client has to wait for the answer.
void checkUpgrade(const UpgradeRequest &request);

class SessionSocket;
using SessionSocketPtr = std::shared_ptr<SessionSocket>;

// The request has passed checkUpgrade; no operation of the stream may be under way.
SessionSocketPtr makeSessionSocket(std::shared_ptr<TlsStream> stream, const UpgradeRequest &request,
                                   const LIMITS_T &limits);

// For CALL_T::take_client; null the second time.
SessionClientPtr takeSessionClient(const SessionSocketPtr &socket);

// Answers the request: the session with this number is open. Does nothing when the session has
// ended meanwhile and its door has been told.
void openSessionSocket(const SessionSocketPtr &socket, const std::string &number, bool is_kept);

// lost is called at most once, with the reason, when the connection is lost once the session is
// open: the session itself may have nothing under way that would tell it.
void whenLost(SessionSocket &socket, std::function<void(const char *reason)> lost);

} // namespace backend
