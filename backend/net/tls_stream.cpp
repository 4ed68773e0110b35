#include "backend/net/tls_stream.h"

#include "backend/net/admission.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

namespace backend {

namespace asio = boost::asio;

constexpr std::size_t RECORD_MAX = SSL3_RT_MAX_PLAIN_LENGTH;

// How the library reaches the connection.
struct WIRE_METHOD_T {
    BIO_METHOD *method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "wire");
    WIRE_METHOD_T()
    {
        if (method == nullptr || BIO_meth_set_read(method, TlsStream::onRead) != 1 ||
            BIO_meth_set_write(method, TlsStream::onWrite) != 1 ||
            BIO_meth_set_ctrl(method, TlsStream::onControl) != 1)
            throw std::bad_alloc();
    }
    WIRE_METHOD_T(const WIRE_METHOD_T &) = delete;
    WIRE_METHOD_T &operator=(const WIRE_METHOD_T &) = delete;
    ~WIRE_METHOD_T()
    {
        BIO_meth_free(method);
    }
};

TlsStream::TlsStream(next_layer_type socket, ssl_ctx_st *context)
    : socket_(std::move(socket)), ssl_(SSL_new(context))
{
    static const WIRE_METHOD_T WIRE;
    BIO *bio = BIO_new(WIRE.method);
    if (!ssl_ || bio == nullptr) {
        BIO_free(bio);
        throw std::bad_alloc();
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl_.get(), bio, bio);
    SSL_set_options(ssl_.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_set_mode(ssl_.get(), SSL_MODE_RELEASE_BUFFERS);
    SSL_set_accept_state(ssl_.get());
}

void TlsStream::SslRelease::operator()(ssl_st *ssl) const
{
    SSL_free(ssl);
}

// ---- what the library calls

// Fills in_, which is empty; as recv.
int TlsStream::receive()
{
    if (is_drained_ || !may_receive_) {
        errno = EAGAIN;
        return -1;
    }
    may_receive_ = false;
    try {
        if (!in_) in_.reset(static_cast<std::uint8_t *>(takeBlock(READ_SIZE)));
    } catch (const std::bad_alloc &) { // must not pass through the library, which is C
        errno = ENOMEM;
        return -1;
    }
    const ssize_t count = recv(socket_.native_handle(), in_.get(), READ_SIZE, MSG_DONTWAIT);
    is_drained_ = count < static_cast<ssize_t>(READ_SIZE);
    in_start_ = 0;
    in_end_ = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    const bool is_allowed =
        count <= 0 || place_ == nullptr || place_->noteProgress(static_cast<std::size_t>(count));
    if (is_allowed) return static_cast<int>(count);
    in_end_ = 0;
    errno = EMSGSIZE;
    return -1;
}

void TlsStream::giveBackInput()
{
    if (in_start_ == in_end_) in_.reset();
}

void TlsStream::waitForTurn(std::function<void()> step)
{
    place_->waitForTurn(std::move(step), !has_answered_);
}

int TlsStream::onRead(BIO *bio, char *bytes, int size)
{
    TlsStream &stream = *static_cast<TlsStream *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (stream.in_start_ == stream.in_end_) {
        const int count = stream.receive();
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            BIO_set_retry_read(bio);
        else if (count < 0)
            stream.fault_.assign(errno, asio::error::get_system_category());
        else if (count == 0)
            stream.fault_ = asio::ssl::error::stream_truncated;
        if (count <= 0) return count;
    }
    const std::size_t count =
        std::min(static_cast<std::size_t>(size), stream.in_end_ - stream.in_start_);
    memcpy(bytes, stream.in_.get() + stream.in_start_, count);
    stream.in_start_ += count;
    return static_cast<int>(count);
}

int TlsStream::onWrite(BIO *bio, const char *bytes, int size)
{
    TlsStream &stream = *static_cast<TlsStream *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (stream.out_.size() + static_cast<std::size_t>(size) > OUT_MAX) {
        stream.fault_ = asio::error::no_buffer_space;
        return -1;
    }
    try {
        stream.out_.append(bytes, static_cast<std::size_t>(size));
    } catch (const std::bad_alloc &) { // must not pass through the library, which is C
        stream.fault_ = asio::error::no_memory;
        return -1;
    }
    return size;
}

long TlsStream::onControl(BIO *, int command, long, void *)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// ---- steps

// Of a call of the library that returned `result`.
TlsStream::RESULT_T TlsStream::failure(int result)
{
    const int kind = SSL_get_error(ssl_.get(), result);
    if (kind == SSL_ERROR_WANT_READ && !fault_) return {WAIT::READABLE, {}, 0};
    if (kind == SSL_ERROR_ZERO_RETURN && !fault_) fault_ = asio::error::eof;
    if (!fault_ && kind == SSL_ERROR_SSL)
        fault_.assign(static_cast<int>(ERR_get_error()), asio::error::get_ssl_category());
    if (!fault_) fault_ = asio::error::connection_aborted;
    return {WAIT::NONE, fault_, 0};
}

TlsStream::RESULT_T TlsStream::send(std::size_t count)
{
    if (fault_ && count == 0) return {WAIT::NONE, fault_, 0};
    while (sent_ < out_.size()) {
        const ssize_t left = ::send(socket_.native_handle(), out_.data() + sent_,
                                    out_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (left < 0 && errno == EINTR) continue;
        if (left < 0 && errno == EAGAIN) return {WAIT::WRITABLE, {}, 0};
        if (left < 0) return {WAIT::NONE, {errno, asio::error::get_system_category()}, 0};
        sent_ += static_cast<std::size_t>(left);
    }
    if (!out_.empty()) has_answered_ = true;
    out_.clear(); // its storage serves the next stream
    sent_ = 0;
    return {WAIT::NONE, {}, count};
}

TlsStream::RESULT_T TlsStream::handshake()
{
    if (fault_) return {WAIT::NONE, fault_, 0};
    ERR_clear_error();
    const int result = SSL_accept(ssl_.get());
    giveBackInput();
    const RESULT_T state = result == 1 ? RESULT_T{} : failure(result);
    const RESULT_T sending = send(1); // also an alert that gives the peer the reason
    const bool is_sent = sending.wait == WAIT::NONE && !sending.error;
    return state.error || is_sent ? state : sending;
}

TlsStream::RESULT_T TlsStream::shutdown()
{
    if (fault_ && fault_ != asio::error::eof) return {WAIT::NONE, fault_, 0};
    ERR_clear_error();
    if ((SSL_get_shutdown(ssl_.get()) & SSL_SENT_SHUTDOWN) == 0) (void)SSL_shutdown(ssl_.get());
    return send(1);
}

// Whole records into one buffer. What failed after some of them will fail the next time.
TlsStream::RESULT_T TlsStream::decrypt(asio::mutable_buffer rest)
{
    RESULT_T result;
    while (rest.size() > 0) {
        std::size_t count = 0;
        const int is_read = SSL_read_ex(ssl_.get(), rest.data(), rest.size(), &count);
        if (is_read != 1) {
            const RESULT_T state = failure(is_read);
            return result.count > 0 ? result : state;
        }
        rest += count;
        result.count += count;
    }
    return result;
}

TlsStream::RESULT_T TlsStream::readSome(std::span<const asio::mutable_buffer> buffers)
{
    if (fault_) return {WAIT::NONE, fault_, 0};
    ERR_clear_error();
    RESULT_T result;
    for (const asio::mutable_buffer &buffer : buffers) {
        const RESULT_T state = decrypt(buffer);
        if (state.count == 0 && result.count == 0) result = state;
        result.count += state.count;
        if (state.count < buffer.size()) break;
    }
    giveBackInput();
    if (result.count == 0 && !out_.empty())
        (void)send(1); // an alert; what is left goes with the next write
    return result;
}

bool TlsStream::encryptRecord(const void *bytes, std::size_t size)
{
    std::size_t count = 0;
    const int is_written = SSL_write_ex(ssl_.get(), bytes, size, &count);
    if (is_written == 1) return true;
    if (failure(is_written).wait != WAIT::NONE) fault_ = asio::error::connection_aborted;
    return false;
}

// What is smaller than a record is put together with its neighbours, except at the end. Returns how
// much was taken; 0 with a fault.
std::size_t TlsStream::encrypt(std::span<const asio::const_buffer> buffers)
{
    if (fault_ && fault_ != asio::error::eof) return 0;
    ERR_clear_error();
    const std::size_t all = std::min(asio::buffer_size(buffers), WRITE_MAX);
    if (all >= BLOCK_USE_MIN) out_.reserve(BLOCK_SIZE); // one block
    std::array<std::uint8_t, RECORD_MAX> joined;
    std::size_t used = 0;
    std::size_t taken = 0;
    for (asio::const_buffer rest : buffers) {
        rest = asio::buffer(rest, all - taken);
        taken += rest.size();
        while (rest.size() > 0) {
            const std::size_t count = std::min(rest.size(), RECORD_MAX - used);
            const bool is_last = taken == all && count == rest.size();
            const bool is_whole = used == 0 && (count == RECORD_MAX || is_last);
            const void *record = is_whole ? rest.data() : joined.data();
            if (!is_whole) memcpy(joined.data() + used, rest.data(), count);
            used += count;
            rest += count;
            if (used < RECORD_MAX && !is_last) continue;
            if (!encryptRecord(record, used)) return 0;
            used = 0;
        }
    }
    if (all < RECORD_MAX) OPENSSL_cleanse(joined.data(), all); // it may have carried a password
    return taken;
}

} // namespace backend
