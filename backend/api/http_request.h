// One HTTP request (RFC 9112), read step by step: its header first, so that it is known who asks
// before anything more is read, then its body.
// Ownership  a reader has the bytes that came behind a request, too: the next one begins with them.
// Threads    no shared state.
// Limits     HTTP_HEADER_MAX bytes of a header, HTTP_BODY_MAX of a body.
// Secrets    bytes that were read, tokens and bodies are overwritten once they are done with.
// Failure    a fault has a status and words for the client; the connection has to end after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace backend {

constexpr std::size_t HTTP_HEADER_MAX = std::size_t{16} * 1024;
constexpr std::size_t HTTP_BODY_MAX = std::size_t{64} * 1024;

struct HTTP_REQUEST_T {
    HTTP_REQUEST_T() = default;
    HTTP_REQUEST_T(HTTP_REQUEST_T &&) = default;
    HTTP_REQUEST_T &operator=(HTTP_REQUEST_T &&) = default;
    ~HTTP_REQUEST_T();

    std::string method;
    std::string target;                        // path and query, still encoded; "*" of OPTIONS
    std::string token;                         // of "Authorization: Bearer"; empty: none came
    std::map<std::string, std::string> fields; // names in lower case; without Authorization
    std::string body;
    bool has_body = false;
    bool keeps_alive = false;
    bool expects_continue = false;
    bool is_upgrade = false; // to a WebSocket
};

// Empty without such a field.
std::string_view fieldOf(const HTTP_REQUEST_T &request, const std::string &name);

enum class READ { MORE, DONE, FAULT };

struct HTTP_FAULT_T {
    unsigned status = 400;
    const char *text = "";
};

class RequestReader {
public:
    RequestReader();
    RequestReader(const RequestReader &) = delete;
    RequestReader &operator=(const RequestReader &) = delete;
    ~RequestReader();

    void feed(std::string_view bytes);
    READ readHeader(); // fills request(), but for its body
    READ readBody();   // after the header
    void next();       // another request

    // Nothing of the next request has come.
    [[nodiscard]] bool isEmpty() const;
    HTTP_REQUEST_T &request()
    {
        return request_;
    }
    [[nodiscard]] const HTTP_FAULT_T &fault() const
    {
        return fault_;
    }
    // What came behind the request, for who takes the connection over.
    std::string takeRest();

private:
    struct Parser;
    READ refuse(unsigned status, const char *text);
    READ parse(bool is_header);
    READ takeHeader();
    READ takeFields();
    void consume(std::size_t count);

    std::unique_ptr<Parser> parser_;
    std::string in_;
    HTTP_REQUEST_T request_;
    HTTP_FAULT_T fault_;
};

} // namespace backend
