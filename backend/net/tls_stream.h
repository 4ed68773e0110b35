// The server's side of TLS over one TCP connection, as the stream under a WebSocket: a receive
// takes whatever the kernel holds, up to READ_SIZE, and a write leaves with one send, however many
// records it takes.
// Idle       a stream that has nothing under way holds no buffer: blocks come from the buffer pool,
//            and the library releases its own.
// Ownership  the stream owns its socket. An operation borrows the stream, and a read its buffers,
//            until the handler is called; a write is done with its buffers at once.
// Threads    the thread of the io_context. At most one read and one write at a time.
// Limits     READ_SIZE bytes that are not decrypted yet, OUT_MAX bytes that are not sent yet: a
//            peer that makes the library answer without end, and reads none of it, is cut off. No
//            renegotiation.
// Failure    error codes; eof after the peer's close_notify, ssl::error::stream_truncated when the
//            connection ends without it. After a fault of TLS every operation fails with it.
#pragma once

#include "backend/net/buffer_pool.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/compose.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>

struct bio_st;
struct ssl_ctx_st;
struct ssl_st;

namespace backend {

class Place;

class TlsStream {
public:
    static constexpr std::size_t READ_SIZE = std::size_t{128} * 1024;
    static constexpr std::size_t WRITE_MAX = std::size_t{128} * 1024; // taken from one write
    static constexpr std::size_t OUT_MAX = std::size_t{256} * 1024;
    static constexpr std::size_t PIECES_MAX = 16; // of a buffer sequence

    using next_layer_type = boost::asio::ip::tcp::socket;
    using executor_type = next_layer_type::executor_type;
    using Error = boost::system::error_code;

    TlsStream(next_layer_type socket, ssl_ctx_st *context); // throws when out of memory
    TlsStream(const TlsStream &) = delete;
    TlsStream &operator=(const TlsStream &) = delete;
    ~TlsStream() = default;

    executor_type get_executor()
    {
        return socket_.get_executor();
    }
    next_layer_type &next_layer()
    {
        return socket_;
    }
    const next_layer_type &next_layer() const
    {
        return socket_;
    }

    // Borrowed; for what the handshake has shown of the peer.
    [[nodiscard]] const ssl_st *native() const
    {
        return ssl_.get();
    }

    // The place, borrowed, is told of new bytes, and what they cause waits for its turn there.
    // Null: no longer, which is so before the first call. No operation may be under way.
    void setPlace(Place *place)
    {
        place_ = place;
    }

    // The handler takes an error.
    template <class Handler> auto async_handshake(Handler &&handler)
    {
        return start<TURNS::TAKES, void(Error)>(
            [](TlsStream &stream) { return stream.handshake(); }, handler);
    }

    // Says that nothing more comes (close_notify); does not wait for the peer to say it.
    template <class Handler> auto async_shutdown(Handler &&handler)
    {
        return start<TURNS::NONE, void(Error)>([](TlsStream &stream) { return stream.shutdown(); },
                                               handler);
    }

    // Fills the buffers as far as whole records are there.
    template <class Buffers, class Handler>
    auto async_read_some(const Buffers &buffers, Handler &&handler)
    {
        return start<TURNS::TAKES, void(Error, std::size_t)>(
            [pieces = Pieces<boost::asio::mutable_buffer>(buffers)](TlsStream &stream) {
                return stream.readSome(pieces.used());
            },
            handler);
    }

    // Takes the whole sequence, up to WRITE_MAX, and is done when the kernel has all of it.
    template <class Buffers, class Handler>
    auto async_write_some(const Buffers &buffers, Handler &&handler)
    {
        const std::size_t taken = encrypt(Pieces<boost::asio::const_buffer>(buffers).used());
        return start<TURNS::NONE, void(Error, std::size_t)>(
            [taken](TlsStream &stream) { return stream.send(taken); }, handler);
    }

private:
    // Whether a step waits for its turn while there is a place: those do that a peer causes. A
    // place has one turn at a time, so reads and writes must not both take one.
    enum class TURNS { NONE, TAKES };

    enum class WAIT { NONE, READABLE, WRITABLE };

    struct RESULT_T {
        WAIT wait = WAIT::NONE; // what has to come before the step is tried again
        Error error;
        std::size_t count = 0;
    };

    struct SslRelease {
        void operator()(ssl_st *ssl) const;
    };

    template <class Buffer> struct Pieces {
        template <class Buffers> explicit Pieces(const Buffers &buffers)
        {
            const auto end = boost::asio::buffer_sequence_end(buffers);
            for (auto it = boost::asio::buffer_sequence_begin(buffers);
                 it != end && count < PIECES_MAX; ++it)
                pieces[count++] = Buffer(*it);
        }
        std::span<const Buffer> used() const
        {
            return {pieces.data(), count};
        }
        std::array<Buffer, PIECES_MAX> pieces;
        std::size_t count = 0;
    };

    // Tries its step until that need not wait. A handler never runs within the call that starts it.
    template <TURNS Turns, class Step, class Signature> struct Operation {
        template <class Self> void operator()(Self &self, const Error &waited = {})
        {
            if (!is_done && !waited && awaitsTurn(self)) return;
            if (!is_done && !isOver(self, waited)) return;
            if constexpr (std::is_same_v<Signature, void(Error)>)
                self.complete(result.error);
            else
                self.complete(result.error, result.count);
        }

        // True while its turn is to come, which calls again.
        template <class Self> bool awaitsTurn(Self &self)
        {
            TlsStream &on = stream;
            if (Turns == TURNS::NONE || on.place_ == nullptr || std::exchange(has_turn, false))
                return false;
            has_turn = has_waited = true;
            const auto held = std::make_shared<Self>(std::move(self));
            on.waitForTurn([held] { (*held)(); });
            return true;
        }

        // Takes the step. False when it is called again, for another try or to complete.
        template <class Self> bool isOver(Self &self, const Error &waited)
        {
            TlsStream &on = stream;
            on.may_receive_ = true;
            result = waited ? RESULT_T{WAIT::NONE, waited, 0} : step(on);
            if (result.wait != WAIT::NONE) {
                has_waited = true;
                const bool is_read = result.wait == WAIT::READABLE;
                if (is_read) on.is_drained_ = false;
                on.socket_.async_wait(is_read ? next_layer_type::wait_read
                                              : next_layer_type::wait_write,
                                      std::move(self));
                return false;
            }
            is_done = true;
            if (has_waited) return true;
            boost::asio::post(on.get_executor(), std::move(self));
            return false;
        }

        TlsStream &stream;
        Step step;
        RESULT_T result{};
        bool has_waited = false;
        bool has_turn = false;
        bool is_done = false;
    };

    template <TURNS Turns, class Signature, class Step, class Handler>
    auto start(Step step, Handler &handler)
    {
        return boost::asio::async_compose<Handler, Signature>(
            Operation<Turns, Step, Signature>{*this, std::move(step)}, handler, socket_);
    }

    // None of them blocks.
    RESULT_T handshake();
    RESULT_T shutdown();
    RESULT_T decrypt(boost::asio::mutable_buffer rest);
    RESULT_T readSome(std::span<const boost::asio::mutable_buffer> buffers);
    std::size_t encrypt(std::span<const boost::asio::const_buffer> buffers);
    bool encryptRecord(const void *bytes, std::size_t size);
    RESULT_T send(std::size_t count);
    RESULT_T failure(int result);
    int receive();
    void giveBackInput();
    void waitForTurn(std::function<void()> step);

    static int onRead(bio_st *bio, char *bytes, int size);
    static int onWrite(bio_st *bio, const char *bytes, int size);
    static long onControl(bio_st *bio, int command, long number, void *pointer);
    friend struct WIRE_METHOD_T;

    next_layer_type socket_;
    std::unique_ptr<ssl_st, SslRelease> ssl_;
    struct BlockRelease {
        void operator()(std::uint8_t *block) const
        {
            giveBlock(block, READ_SIZE);
        }
    };

    std::unique_ptr<std::uint8_t[], BlockRelease> in_; // null while nothing is in it
    std::size_t in_start_ = 0;                         // of what is not decrypted yet
    std::size_t in_end_ = 0;
    bool is_drained_ = false;  // the kernel held less than there was room for
    bool may_receive_ = false; // once in a step: what a peer sends without end leaves others a turn
    BlockBuffer out_;
    std::size_t sent_ = 0; // of out_
    Place *place_ = nullptr;
    bool has_answered_ = false; // the peer has seen a byte
    Error fault_;               // what every further operation fails with
};

// What the WebSocket calls after its close frame.
template <class Handler>
void async_teardown(boost::beast::role_type, TlsStream &stream, Handler &&handler)
{
    stream.async_shutdown(std::forward<Handler>(handler));
}

} // namespace backend
