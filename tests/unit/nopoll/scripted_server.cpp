#include "scripted_server.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>

using Clock = std::chrono::steady_clock;

ScriptedServer::ScriptedServer(const IDENTITY_T *identity, int max_tls)
    : listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)}
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bind(listener_.get(), generic, size), 0);
    EXPECT_EQ(listen(listener_.get(), 0), 0);
    getsockname(listener_.get(), generic, &size);
    port = std::to_string(ntohs(address.sin_port));
    const timeval patience{PATIENCE_S, 0}; // what is accepted inherits it
    setsockopt(listener_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(listener_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (!identity) return;
    context_.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_set_min_proto_version(context_.get(), 0);
    SSL_CTX_set_max_proto_version(context_.get(), max_tls);
    SSL_CTX_set_cipher_list(context_.get(), "DEFAULT:@SECLEVEL=0");
    SSL_CTX_use_certificate(context_.get(), identity->certificate.get());
    SSL_CTX_use_PrivateKey(context_.get(), identity->key.get());
}

void ScriptedServer::acceptOne(Answer answer)
{
    thread_ = std::jthread{[this, answer = std::move(answer)] { serve(answer); }};
}

void ScriptedServer::abandon()
{
    shutdown(listener_.get(), SHUT_RDWR);
}

void ScriptedServer::settle()
{
    if (thread_.joinable()) thread_.join();
}

void ScriptedServer::serve(const Answer &answer)
{
    sigset_t broken_pipe; // a client may leave in the middle; OpenSSL's own writes do not expect it
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    socket_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket_) return;
    if (context_) {
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), socket_.get());
        if (SSL_accept(ssl_.get()) != 1) {
            hangUp();
            return;
        }
        const char *name = SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name);
        server_name = name ? name : "";
        cipher = SSL_get_cipher_name(ssl_.get());
    }
    while (!request.ends_with("\r\n\r\n")) {
        const std::string byte = read(1);
        if (byte.empty()) return;
        request += byte;
    }
    const std::string text = answer(request);
    if (text.empty()) hangUp();
    write(text);
}

static int makeTicketLong(SSL *ssl, void * /*argument*/)
{
    const std::string filler(2000, 't');
    return SSL_SESSION_set1_ticket_appdata(SSL_get_session(ssl), filler.data(), filler.size());
}

std::string ScriptedServer::longTicket()
{
    SSL_CTX_set_session_ticket_cb(context_.get(), makeTicketLong, nullptr, nullptr);
    SSL_set_max_send_fragment(ssl_.get(), 512);
    BIO *const socket_bio = SSL_get_wbio(ssl_.get());
    BIO_up_ref(socket_bio);
    BIO *const caught = BIO_new(BIO_s_mem());
    BIO_up_ref(caught);
    SSL_set0_wbio(ssl_.get(), caught);
    EXPECT_EQ(SSL_new_session_ticket(ssl_.get()), 1);
    EXPECT_EQ(SSL_do_handshake(ssl_.get()), 1);
    SSL_set0_wbio(ssl_.get(), socket_bio);
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(caught, &bytes);
    std::string ticket(bytes, static_cast<std::size_t>(size));
    BIO_free(caught);
    return ticket;
}

void ScriptedServer::sendRaw(std::string_view bytes)
{
    const auto size = static_cast<ssize_t>(bytes.size());
    EXPECT_EQ(send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), size);
}

void ScriptedServer::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto size = static_cast<int>(bytes.size());
        const long sent = ssl_ ? SSL_write(ssl_.get(), bytes.data(), size)
                               : send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string ScriptedServer::read(std::size_t size)
{
    std::string bytes(size, '\0');
    std::size_t have = 0;
    while (have < size) {
        const std::size_t left = size - have;
        const long got = ssl_ ? SSL_read(ssl_.get(), &bytes[have], static_cast<int>(left))
                              : recv(socket_.get(), &bytes[have], left, 0);
        if (got <= 0) break;
        have += static_cast<std::size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

CLIENT_FRAME_T ScriptedServer::readFrame()
{
    const std::string head = read(2);
    if (head.size() < 2) return {};
    const auto byte = [](const std::string &text, std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    EXPECT_TRUE(byte(head, 1) & 0x80) << "not masked";
    EXPECT_EQ(byte(head, 0) & 0xF0, 0x80) << "not one whole frame";
    std::size_t size = byte(head, 1) & 0x7F;
    const std::string extra = read(size == 127 ? 8 : size == 126 ? 2 : 0);
    if (!extra.empty()) size = 0;
    for (std::size_t i = 0; i < extra.size(); ++i)
        size = size << 8 | byte(extra, i);
    EXPECT_TRUE(extra.empty() || size > (extra.size() == 8 ? 65535 : 125)) << "length too long";
    const std::string mask = read(4);
    std::string payload = read(size);
    EXPECT_EQ(payload.size(), size) << "frame cut";
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
    return {byte(head, 0) & 0x0F, std::move(payload)};
}

void ScriptedServer::hangUp()
{
    ssl_.reset();
    socket_.reset();
}

std::string properAnswer(const std::string &request)
{
    const std::size_t start = request.find("Sec-WebSocket-Key: ") + 19;
    const std::string source = request.substr(start, 24) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[20];
    unsigned char accept[29];
    EVP_Digest(source.data(), source.size(), digest, nullptr, EVP_sha1(), nullptr);
    EVP_EncodeBlock(accept, digest, sizeof digest);
    return "HTTP/1.1 101 Switching Protocols\r\nupgrade: WebSocket\r\nCONNECTION: keep-alive, "
           "upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           std::string{reinterpret_cast<char *>(accept)} + "\r\n\r\n";
}

std::string serverFrame(int first, std::string_view payload, int extra)
{
    const std::size_t size = payload.size();
    if (extra < 0) extra = size > 65535 ? 8 : size > 125 ? 2 : 0;
    std::string frame{static_cast<char>(first)};
    frame += static_cast<char>(extra == 8 ? 127 : extra == 2 ? 126 : size);
    for (int i = extra - 1; i >= 0; --i)
        frame += static_cast<char>(size >> (8 * i) & 0xFF);
    return frame.append(payload);
}

std::string patternOf(std::size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    unsigned value = seed * 2654435761U + 1;
    for (char &byte : bytes) {
        value = value * 1664525U + 1013904223U;
        byte = static_cast<char>(value >> 24);
    }
    return bytes;
}

static void noteLine(noPollCtx *, noPollDebugLevel level, const char *text, noPollPtr log)
{
    *static_cast<std::string *>(log) += std::to_string(level) + ' ' + text + '\n';
}

CLIENT_T::CLIENT_T() : context{nopoll_ctx_new()}
{
    nopoll_log_set_handler(context.get(), noteLine, &log);
}

void CLIENT_T::dial(const char *host, const char *port, noPollConnOpts *options, const char *name)
{
    noPollCtx *ctx = context.get();
    conn.reset(options
                   ? nopoll_conn_tls_new(ctx, options, host, port, name, nullptr, nullptr, nullptr)
                   : nopoll_conn_new(ctx, host, port, name, nullptr, nullptr, nullptr));
}

noPollConnOpts *optionsFor(const char *ca_path)
{
    noPollConnOpts *options = nopoll_conn_opts_new();
    nopoll_conn_opts_set_ssl_certs(options, nullptr, nullptr, nullptr, ca_path);
    return options;
}

noPollMsg *awaitPiece(noPollConn *conn)
{
    const auto deadline = Clock::now() + std::chrono::seconds{PATIENCE_S};
    while (Clock::now() < deadline) {
        if (noPollMsg *piece = nopoll_conn_get_msg(conn)) return piece;
        pollfd entry{nopoll_conn_socket(conn), POLLIN, 0};
        if (entry.fd < 0) return nullptr;
        if (nopoll_conn_read_pending(conn) == 0) poll(&entry, 1, 1000);
    }
    ADD_FAILURE() << "nothing came";
    return nullptr;
}

std::string textOf(noPollMsg *piece)
{
    const auto *bytes = reinterpret_cast<const char *>(nopoll_msg_get_payload(piece));
    return {bytes, static_cast<std::size_t>(nopoll_msg_get_payload_size(piece))};
}

std::string awaitMessage(noPollConn *conn, std::string begun)
{
    while (noPollMsg *piece = awaitPiece(conn)) {
        const std::string text = textOf(piece);
        const bool final = nopoll_msg_is_final(piece) == nopoll_true;
        EXPECT_TRUE(!text.empty() || (final && begun.empty())) << "empty piece";
        EXPECT_LE(text.size(), 16U * 1024 + 1);
        begun += text;
        nopoll_msg_unref(piece);
        if (final) return begun;
    }
    ADD_FAILURE() << "the channel ended inside a message";
    return begun;
}
