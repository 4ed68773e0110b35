// The audit: who did what, one JSON object on one line for each event. docs/audit.md describes the
// lines, docs/audit.schema.json is their schema.
// Chain    every line holds the hash of the line before it and its own, so that a line that was
//          changed, cut or taken out is found (`remote-access audit verify`).
// Writing  a thread of the audit's own writes and, in a regular file, syncs: one fdatasync for all
//          lines that have come meanwhile. No call waits for the disk.
// Limits   8 MiB wait at most, and half of it is for the ends of sessions and for others than their
//          beginnings. A line that was accepted is kept until it is written. One that finds no room
//          is counted, as are those of an event that comes too often; a line "left_out" tells the
//          count.
// Failure  when the file cannot be written, auditAccepts() is false until it can be again: no new
//          session may begin then, open ones go on, and their ends are kept.
// Threads  the thread of the io_context, except where said. Callbacks come on it too, by way of
//          AUDIT_OPTIONS_T::post.
// Tests    without startAudit nothing is written, and each line counts as recorded at once.
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace backend {

enum class AUDIT_EVENT {
    BACK_END_STARTED,
    BACK_END_STOPPED,
    SESSION_BEGIN,
    SESSION_END,
    SESSION_INTERRUPTED,
    SESSION_REFUSED,
    SESSION_OPEN,
    SESSION_CLOSE,  // by an operator
    ACCOUNT_CHECK,  // asked for
    ACCOUNT_RESULT, // what the device said
    DEVICE_CONNECTED,
    DEVICE_DISCONNECTED,
    DEVICE_REPLACED,
    DEVICE_DUPLICATE,
    DEVICE_DISCONNECT, // by an operator
    HANDSHAKE_REFUSED,
    RELOAD,
    DENIED,
    TOKEN_MAKE,
    TOKEN_REVOKE,
    HOST_KEY_FIRST,   // that a device has shown
    HOST_KEY_CHANGED, // and was refused
    HOST_KEY_FORGET,  // by an operator
    SSH_CERTIFICATE,  // about to be made
    SIGN_IN_REFUSED,  // over the network, before anyone is known
    CONTINUED,        // the audit's own: a rotated file begins
    TORN,             // the audit's own: what was written last before a crash
    LEFT_OUT,         // the audit's own
};

template <class T>
concept AuditNumber = std::unsigned_integral<T> && !std::same_as<T, bool>;

// One member of a line: {"who", text}, {"bytes_up", number}, {"whole", true}. Texts may hold what
// peers send; they are cut at 1024 bytes.
struct AUDIT_MEMBER_T {
    AUDIT_MEMBER_T(const char *of, std::string_view text) : name(of), value(std::string(text)) {}
    AUDIT_MEMBER_T(const char *of, const char *text) : name(of), value(std::string(text)) {}
    AUDIT_MEMBER_T(const char *of, const std::string &text) : name(of), value(text) {}
    AUDIT_MEMBER_T(const char *of, std::same_as<bool> auto is_so) : name(of), value(is_so) {}
    AUDIT_MEMBER_T(const char *of, AuditNumber auto number) : name(of), value(std::uint64_t{number})
    {
    }
    const char *name; // a literal
    std::variant<std::string, std::uint64_t, bool> value;
};
using AuditMembers = std::vector<AUDIT_MEMBER_T>;

// is_recorded: the line is on the disk (in a pipe: it was taken). False: it could not be written
// now. It is kept nevertheless and follows once there is room, so that what it began needs its
// other line too.
using AuditDone = std::function<void(bool is_recorded)>;

struct AUDIT_OPTIONS_T {
    std::string path = "-"; // "-": standard output, which cannot be read back after a crash
    std::string version;    // of the back end, for back_end_started
    // Runs a function on the thread of the io_context; called by the audit's thread, must not wait.
    std::function<void(std::function<void()>)> post;
};

// Opens the file (mode 0640 when it is new) and reads it as far as its chain and the sessions that
// stand open in it; memory goes with their number only. A torn last line is closed, every session
// that stands open is recorded as interrupted. Throws std::runtime_error when the file cannot be
// used, or another back end writes it.
void startAudit(AUDIT_OPTIONS_T options);

// After rotation: the file is opened anew by its name, and begins with the hash of the old one's
// last line and with the sessions that are open. Throws std::runtime_error when it cannot be
// opened; then the old one stays in use.
void reopenAudit();

// No callback comes after this, and those that wait are destroyed by it: to be called before the
// io_context goes. Lines are still taken.
void muteAudit();

// Records back_end_stopped and writes what waits, at most for `bound`. Sessions that have not ended
// by then are for the next start to close. False when something is left unwritten. Mutes the
// audit, too.
bool stopAudit(std::chrono::milliseconds bound = std::chrono::seconds(1));

// Whether a session may begin. Any thread.
bool auditAccepts();

// Records an event; false when it found no room and was counted instead, or comes too often.
bool auditRecord(AUDIT_EVENT event, const AuditMembers &members);

// The same, and `done` comes once; also when the result is false (with false).
bool auditRecord(AUDIT_EVENT event, const AuditMembers &members, AuditDone done);

// What is said of a session in each of its lines.
struct AUDIT_SESSION_T {
    std::string id; // newUuid()
    std::string product;
    std::string device;
    std::string who;  // the account
    std::string from; // where: process, local port, peer's address
    std::string service;
    bool is_shared = false; // other accounts may use the port that it came through
    std::string kept = {};  // of a kept session: the same for all its carriers, else empty
    bool is_resumed = false;
};

// The device is asked only after done(true). Every session that has begun needs its end, also after
// done(false). Without auditAccepts() nothing begins: done(false) comes, the result is false, and
// auditSessionRefused is the one to call. done never comes before this returns, except in tests
// without startAudit.
bool auditSessionBegin(const AUDIT_SESSION_T &session, AuditDone done);

struct AUDIT_END_T {
    std::uint64_t bytes_up = 0;   // from the device for the client
    std::uint64_t bytes_down = 0; // from the client for the device
    bool is_whole = false;        // everything that the device sent has gone to the client
    std::string reason;
    std::string device_session; // the device's own identifier; empty when it has not answered
    bool is_final = false;      // of a kept session: it cannot be resumed
};

// Always finds room. Does nothing for a session that has not begun.
void auditSessionEnd(const std::string &id, const AUDIT_END_T &end);

// For one that never began. Its id may be empty.
void auditSessionRefused(const AUDIT_SESSION_T &session, const std::string &reason);

} // namespace backend
