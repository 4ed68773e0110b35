// The two requests of the back end that carry a JSON payload: a new session and an account check.
// The parsers touch nothing but their record and the log. Payloads are [text, text + length) and
// are followed by a NUL, as the receive buffer's content always is; some log lines print them to
// that NUL.
#pragma once

#include <cstdint>

struct NEW_SESSION_REQ_T {
    char service_type[16];
    char service_name[32];
    char service_ip[16]; // dotted IPv4 address or a short host name
    std::int32_t service_port;
};

struct VERIFY_ACCOUNT_T {
    char username[256];
    char password[256]; // clear text: wipe the record after use
};

// Never fails: what cannot be read keeps its default ("SSH", "ssh_localhost", "127.0.0.1", 22).
// Without a text the record stays as it is. The record has to be clear.
void parseProxyProtocolNewSessionPayload(const char *text, std::int32_t length,
                                         NEW_SESSION_REQ_T *request);

// 0 when both texts, of 1 to 255 characters each, were read; -1 otherwise. Its failure lines show
// the whole payload, password included.
[[nodiscard]] int parseProxyProtocolVerifyAccount(const char *text, std::int32_t length,
                                                  VERIFY_ACCOUNT_T *account);
