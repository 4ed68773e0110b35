// The operator's end of a session: a stream that bytes are read from and written to, whatever it is
// made of (a socket, or a WebSocket of the interface).
// Ownership  its session's, until close(). An operation under way keeps what it needs; its callback
//            comes once, with an error after close().
// Threads    the thread of the io_context. At most one read and one write at a time. A callback
//            never comes within the call that starts the operation.
// Buffers    are the caller's and stay valid until the callback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include <boost/system/error_code.hpp>

namespace backend {

// What is waited for when everything has been sent.
enum class END_WAIT {
    FOR_CLIENT, // its own end
    NOTHING,    // close() tells the client of the end, and waits for it by itself
};

// How a session ended, for a client that can be told. The reason is valid during the call.
struct SESSION_END_T {
    const char *reason = "";
    bool is_whole = false;
    std::uint64_t bytes_up = 0;
    std::uint64_t bytes_down = 0;
    bool is_final = false; // of a kept session: it cannot be resumed
};

class SessionClient {
public:
    using Error = boost::system::error_code;
    using Done = std::function<void(const Error &, std::size_t)>;

    virtual ~SessionClient() = default;

    // What is there already; would_block when that is nothing.
    virtual std::size_t readSome(std::span<std::uint8_t> bytes, Error &error) = 0;
    // At least one byte; eof when the operator has ended its sending.
    virtual void asyncRead(std::span<std::uint8_t> bytes, Done done) = 0;
    // As much as is taken at once; would_block when that is nothing.
    virtual std::size_t writeSome(std::span<const std::uint8_t> bytes, Error &error) = 0;
    virtual void asyncWrite(std::span<const std::uint8_t> bytes, Done done) = 0;
    // The operator gets an end of file after everything that was written.
    virtual END_WAIT endSending() = 0;
    // Why an operation has failed, other than by the end of file; a literal.
    virtual const char *lossReason() const
    {
        return "the client's connection is lost";
    }
    // is_orderly: an end of file for the operator, else a reset. Comes once.
    virtual void close(const SESSION_END_T &end, bool is_orderly) = 0;
};
using SessionClientPtr = std::unique_ptr<SessionClient>;

} // namespace backend
