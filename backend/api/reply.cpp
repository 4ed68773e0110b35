#include "backend/api/reply.h"

#include "backend/api/http_request.h"

#include <array>
#include <ctime>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

namespace backend {

using nlohmann::json;

struct STATUS_T {
    unsigned status;
    const char *phrase;
};

constexpr auto STATUSES = std::to_array<STATUS_T>({
    {200, "OK"},
    {204, "No Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {426, "Upgrade Required"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
});

static const char *phraseOf(unsigned status)
{
    for (const STATUS_T &row : STATUSES)
        if (row.status == status) return row.phrase;
    return "";
}

static std::string textOf(const json &document)
{
    return document.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

REPLY_T jsonReply(const json &document)
{
    REPLY_T reply;
    reply.content_type = "application/json";
    reply.body = textOf(document);
    return reply;
}

REPLY_T problemReply(FAULT fault, const std::string &detail, unsigned status)
{
    const FAULT_KIND_T &kind = faultKind(fault);
    REPLY_T reply;
    reply.status = status != 0 ? status : kind.status;
    const bool is_own = reply.status == kind.status;
    reply.content_type = "application/problem+json";
    reply.body = textOf({{"type", "about:blank"},
                         {"title", is_own ? kind.title : phraseOf(reply.status)},
                         {"status", reply.status},
                         {"detail", detail},
                         {"kind", kind.name}});
    return reply;
}

REPLY_T operationReply(const json &answer)
{
    if (answer.value("ok", false)) {
        json document = answer;
        document.erase("ok");
        return jsonReply(document);
    }
    const FAULT_KIND_T *const kind = findFaultKind(answer.value("kind", ""));
    return problemReply(kind != nullptr ? kind->fault : FAULT::BAD_REQUEST,
                        answer.value("error", ""));
}

// ---- conditional requests

static std::string tagOf(std::string_view body)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    if (EVP_Digest(body.data(), body.size(), hash.data(), nullptr, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("no hash can be made");
    std::string tag = "\"";
    constexpr std::string_view DIGITS = "0123456789abcdef";
    for (std::size_t i = 0; i < 16; i++) {
        tag += DIGITS[hash[i] >> 4];
        tag += DIGITS[hash[i] & 15];
    }
    return tag + "\"";
}

// A list of tags or "*"; the comparison is the weak one (RFC 9110, 13.1.2).
static bool isNamed(std::string_view list, std::string_view tag)
{
    return list == "*" || list.find(tag) != std::string_view::npos;
}

void tagReply(REPLY_T &reply, const HTTP_REQUEST_T &request)
{
    if (reply.status != 200) return;
    const std::string tag = tagOf(reply.body);
    reply.fields.emplace_back("ETag", tag);
    if (!isNamed(fieldOf(request, "if-none-match"), tag)) return;
    reply.status = 304;
    reply.content_type.clear();
    reply.body.clear();
}

// ---- text

static std::string dateText()
{
    const time_t now = time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 40> text{}; // the names are English: no locale is set
    return {text.data(), strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts)};
}

static std::string headOf(unsigned status, std::string_view caching)
{
    return "HTTP/1.1 " + std::to_string(status) + " " + phraseOf(status) +
           "\r\nServer: remote_access_backend\r\nDate: " + dateText() +
           "\r\nCache-Control: " + std::string(caching) +
           "\r\nX-Content-Type-Options: nosniff"
           "\r\nStrict-Transport-Security: max-age=31536000\r\n";
}

static std::string fieldText(std::string_view name, std::string_view value)
{
    return std::string(name) + ": " + std::string(value) + "\r\n";
}

std::string replyText(const REPLY_T &reply, bool keeps_alive)
{
    bool is_tagged = false;
    for (const auto &[name, value] : reply.fields)
        is_tagged = is_tagged || name == std::string_view("ETag");
    std::string text = headOf(reply.status, is_tagged ? "private, no-cache" : "no-store");
    for (const auto &[name, value] : reply.fields)
        text += fieldText(name, value);
    if (!reply.content_type.empty()) text += fieldText("Content-Type", reply.content_type);
    if (reply.status != 204 && reply.status != 304)
        text += fieldText("Content-Length", std::to_string(reply.body.size()));
    text += keeps_alive ? "\r\n" : "Connection: close\r\n\r\n";
    if (!reply.is_head) text += reply.body;
    return text;
}

std::string streamHead(const char *content_type)
{
    return headOf(200, "no-store") + fieldText("Content-Type", content_type) +
           "Connection: close\r\n\r\n";
}

} // namespace backend
