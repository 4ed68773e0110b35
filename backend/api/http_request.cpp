#include "backend/api/http_request.h"

#include <algorithm>
#include <array>
#include <limits>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string.h> // NOLINT(modernize-deprecated-headers): explicit_bzero

namespace backend {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

constexpr std::size_t IN_MAX = HTTP_HEADER_MAX + HTTP_BODY_MAX; // of what is not parsed yet

static void wipe(std::string &text)
{
    explicit_bzero(text.data(), text.size());
    text.clear();
}

HTTP_REQUEST_T::~HTTP_REQUEST_T()
{
    wipe(token);
    wipe(body);
}

std::string_view fieldOf(const HTTP_REQUEST_T &request, const std::string &name)
{
    const auto found = request.fields.find(name);
    return found != request.fields.end() ? std::string_view(found->second) : std::string_view();
}

struct RequestReader::Parser {
    Parser()
    {
        http.header_limit(HTTP_HEADER_MAX);
        http.body_limit(std::numeric_limits<std::uint64_t>::max()); // ours is looked at later
    }
    http::request_parser<http::string_body> http;
};

RequestReader::RequestReader() : parser_(std::make_unique<Parser>()) {}

RequestReader::~RequestReader()
{
    wipe(in_);
}

void RequestReader::next()
{
    request_ = {};
    fault_ = {};
    parser_ = std::make_unique<Parser>();
}

bool RequestReader::isEmpty() const
{
    return in_.empty();
}

void RequestReader::feed(std::string_view bytes)
{
    // It grows here only, so that no copy of a secret is left behind.
    if (in_.size() + bytes.size() > in_.capacity()) {
        std::string grown;
        grown.reserve((in_.size() + bytes.size()) * 2);
        grown = in_;
        wipe(in_);
        in_.swap(grown);
    }
    in_.append(bytes);
}

void RequestReader::consume(std::size_t count)
{
    const std::size_t left = in_.size() - count;
    std::copy(in_.begin() + static_cast<std::ptrdiff_t>(count), in_.end(), in_.begin());
    explicit_bzero(in_.data() + left, count);
    in_.resize(left);
    if (left == 0) in_ = {}; // an idle connection holds no storage
}

std::string RequestReader::takeRest()
{
    return std::exchange(in_, {});
}

READ RequestReader::refuse(unsigned status, const char *text)
{
    fault_ = {status, text};
    return READ::FAULT;
}

// ---- the header

struct FAULT_ROW_T {
    http::error error;
    HTTP_FAULT_T fault;
};

constexpr auto FAULTS = std::to_array<FAULT_ROW_T>({
    {http::error::header_limit, {431, "the header of the request is too large"}},
    {http::error::bad_version, {505, "only HTTP/1.1 is spoken here"}},
    {http::error::bad_target, {400, "the target of the request is malformed"}},
    {http::error::bad_content_length, {400, "the length of the body is not clear"}},
    {http::error::bad_transfer_encoding, {400, "the length of the body is not clear"}},
});

static HTTP_FAULT_T faultOf(const error_code &error)
{
    for (const FAULT_ROW_T &row : FAULTS)
        if (error == row.error) return row.fault;
    return {400, "the request is malformed"};
}

READ RequestReader::parse(bool is_header)
{
    while (!in_.empty()) {
        error_code error;
        const std::size_t used =
            parser_->http.put(asio::const_buffer(in_.data(), in_.size()), error);
        consume(used);
        if (error == http::error::need_more)
            error = {};
        else if (error) {
            fault_ = faultOf(error);
            return READ::FAULT;
        }
        if (is_header ? parser_->http.is_header_done() : parser_->http.is_done()) return READ::DONE;
        if (used == 0) break;
    }
    return READ::MORE;
}

READ RequestReader::readHeader()
{
    const READ result = parse(true);
    if (result == READ::MORE && in_.size() > HTTP_HEADER_MAX)
        return refuse(431, "the header of the request is too large");
    return result == READ::DONE ? takeHeader() : result;
}

// Two of these would be understood differently by different readers.
constexpr auto SINGLE_FIELDS = std::to_array<const char *>(
    {"authorization", "content-type", "expect", "host", "transfer-encoding", "sec-websocket-key",
     "sec-websocket-version"});

// The scheme is of either case (RFC 9110, 11.1).
static std::string tokenOf(beast::string_view value)
{
    constexpr beast::string_view SCHEME = "bearer ";
    if (value.size() < SCHEME.size() || !beast::iequals(value.substr(0, SCHEME.size()), SCHEME))
        return {};
    value.remove_prefix(std::min(value.find_first_not_of(' ', SCHEME.size()), value.size()));
    return std::string(value);
}

static char lowerCase(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

READ RequestReader::takeFields()
{
    for (const auto &field : parser_->http.get()) {
        std::string name(field.name_string());
        std::transform(name.begin(), name.end(), name.begin(), lowerCase);
        const bool is_single =
            std::find(SINGLE_FIELDS.begin(), SINGLE_FIELDS.end(), name) != SINGLE_FIELDS.end();
        const auto value = field.value();
        const auto [found, is_new] = request_.fields.try_emplace(name);
        if (!is_new && is_single) return refuse(400, "a field of the header came twice");
        if (name == "authorization") {
            request_.token = tokenOf(value);
            explicit_bzero(const_cast<char *>(value.data()), value.size());
            continue;
        }
        if (!is_new) found->second += ", ";
        found->second.append(value.data(), value.size());
    }
    request_.fields.erase("authorization");
    return READ::DONE;
}

// The absolute form, which proxies are given, counts by its path (RFC 9112, 3.2.2).
static std::string originForm(std::string_view target)
{
    for (const std::string_view scheme : {"https://", "http://"}) {
        if (!target.starts_with(scheme)) continue;
        const std::size_t path = target.find_first_of("/?", scheme.size());
        if (path == std::string_view::npos) return "/";
        return (target[path] == '?' ? "/" : "") + std::string(target.substr(path));
    }
    return std::string(target);
}

READ RequestReader::takeHeader()
{
    auto &http = parser_->http;
    if (takeFields() == READ::FAULT) return READ::FAULT;
    const auto &header = http.get();
    if (header.version() < 10) return refuse(505, "only HTTP/1.1 is spoken here");
    if (header.version() >= 11 && fieldOf(request_, "host").empty())
        return refuse(400, "the request names no host");
    const std::string_view coding = fieldOf(request_, "transfer-encoding");
    if (!coding.empty() &&
        (!beast::iequals({coding.data(), coding.size()}, "chunked") || header.version() < 11))
        return refuse(501, "only the transfer coding \"chunked\" is known here");
    if (http.content_length().value_or(0) > HTTP_BODY_MAX)
        fault_ = {413, "the body of the request is too large"}; // once it is known who asks
    request_.method = std::string(header.method_string());
    request_.target = originForm({header.target().data(), header.target().size()});
    request_.has_body = !http.is_done();
    request_.keeps_alive = header.version() >= 11 && http.keep_alive();
    const std::string_view expected = fieldOf(request_, "expect");
    request_.expects_continue = header.version() >= 11 &&
                                beast::iequals({expected.data(), expected.size()}, "100-continue");
    request_.is_upgrade = http.upgrade();
    return READ::DONE;
}

READ RequestReader::readBody()
{
    if (fault_.status == 413) return READ::FAULT;
    parser_->http.eager(true);
    const READ result = parser_->http.is_done() ? READ::DONE : parse(false);
    auto &body = parser_->http.get().body();
    if (body.size() > HTTP_BODY_MAX || in_.size() > IN_MAX) {
        wipe(body);
        return refuse(413, "the body of the request is too large");
    }
    if (result == READ::DONE) {
        request_.body = std::move(body);
        body.clear();
    }
    return result;
}

} // namespace backend
