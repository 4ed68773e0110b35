// A WebSocket server of a few lines that sends what a test gives it, right or wrong, and reads
// frames strictly. Only its accept runs in a thread; after that the test moves both ends.
// Every wait ends after PATIENCE_S.
#pragma once

#include "platform/nopoll/nopoll.h"
#include "tests/support/test_certificates.h"

#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

inline constexpr int PATIENCE_S = 20;

struct CLIENT_FRAME_T {
    int opcode = -1; // -1: the stream ended
    std::string payload;
    bool operator==(const CLIENT_FRAME_T &) const = default;
};

class ScriptedServer {
public:
    // Answers the request's text; an empty answer ends the connection.
    using Answer = std::function<std::string(const std::string &request)>;

    explicit ScriptedServer(const IDENTITY_T *identity = nullptr, int max_tls = TLS1_3_VERSION);
    ScriptedServer(const ScriptedServer &) = delete;

    void acceptOne(Answer answer);
    // Ends the wait for a client that will not come.
    void abandon();
    // Waits until the accept is done.
    void settle();
    void write(std::string_view bytes);
    // The bytes on the wire of a TLS 1.3 session ticket that takes several records; sendRaw sends
    // them, or a part, as they are.
    std::string longTicket();
    void sendRaw(std::string_view bytes);
    // Up to `size` bytes; fewer when the stream ends.
    std::string read(std::size_t size);
    CLIENT_FRAME_T readFrame();
    void hangUp();

    std::string port;
    std::string request;     // of the client, once settled
    std::string server_name; // that it asked for in TLS
    std::string cipher;      // the first of its wishes

private:
    void serve(const Answer &answer);

    UniqueFd listener_;
    std::unique_ptr<SSL_CTX, Releaser<SSL_CTX_free>> context_;
    UniqueFd socket_;
    std::unique_ptr<SSL, Releaser<SSL_free>> ssl_;
    std::jthread thread_; // the last member: it uses the others until it is joined
};

// The answer that opens the WebSocket.
std::string properAnswer(const std::string &request);
// `first` is the frame's first byte; the length takes `extra` bytes, or as many as it needs (-1).
std::string serverFrame(int first, std::string_view payload, int extra = -1);
// Bytes that show a byte lost or out of place.
std::string patternOf(std::size_t size, unsigned seed);

// A context with the lines that it logged, and a connection.
struct CLIENT_T {
    std::string log;
    std::unique_ptr<noPollCtx, Releaser<nopoll_ctx_unref>> context;
    std::unique_ptr<noPollConn, Releaser<nopoll_conn_close>> conn;

    CLIENT_T();
    // Over TLS when there are options.
    void dial(const char *host, const char *port, noPollConnOpts *options,
              const char *name = nullptr);
};
noPollConnOpts *optionsFor(const char *ca_path);
// Waits until the channel has something; null when it has ended or nothing came in time.
noPollMsg *awaitPiece(noPollConn *conn);
// A whole message, the given beginning of it included; checks that none of its pieces is empty
// without need.
std::string awaitMessage(noPollConn *conn, std::string begun = {});
std::string textOf(noPollMsg *piece);
