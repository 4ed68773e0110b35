// A connection to a back end: TCP, through a proxy where the environment names one, and TLS that
// has checked the server's certificate and name.
// Ownership  the record owns the socket and its io_context; the TLS context is shared.
// Threads    each connection is one thread's; a TLS context serves any number of them.
// Failure    RequestError, in words that say what to do about it.
#pragma once

#include "operator/settings/server.h"
#include "operator/settings/url.h"

#include <chrono>
#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
using TlsContextPtr = std::shared_ptr<boost::asio::ssl::context>;

struct HTTPS_CONNECTION_T {
    boost::asio::io_context io{1};
    TlsContextPtr context;
    std::optional<TlsStream> stream;
    boost::beast::flat_buffer received; // behind the last answer taken
};

// Reads the certificates that the server has.
TlsContextPtr makeTlsContext(const SERVER_T &server);

// url: the server's, parsed.
std::unique_ptr<HTTPS_CONNECTION_T> openConnection(const TlsContextPtr &context, const URL_T &url,
                                                   std::chrono::steady_clock::time_point end);

// Starts an operation and waits for its end; start takes the handler. What it leaves behind, as a
// timer of its own, is not waited for.
template <class Start>
boost::system::error_code waitFor(boost::asio::io_context &io, const Start &start)
{
    boost::system::error_code result = boost::asio::error::would_block;
    io.restart();
    start([&result, &io](boost::system::error_code error, auto &&...) {
        result = error;
        io.stop();
    });
    io.run();
    return result;
}
