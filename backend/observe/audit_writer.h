// Takes the lines of the audit, chains them and writes them from a thread of its own. All lines
// that have come while the last ones were synced are written and synced together.
// Ownership  the writer owns its descriptor, unless it is standard output.
// Threads    every call is safe from every thread. Callbacks go through `post`; none comes after
//            muteAuditWriter. The thread takes no signals.
// Limits     8 MiB of lines wait; AUDIT_ROOM says who may use how much of it.
// Failure    a line that was accepted is tried again each second until it is written; what the
//            descriptor took of it before stays, and the rest follows.
#pragma once

#include "backend/observe/audit.h"
#include "backend/observe/audit_chain.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace backend {

class AuditFd {
public:
    AuditFd() = default;
    explicit AuditFd(int fd) : fd_(fd) {}
    AuditFd(AuditFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    AuditFd &operator=(AuditFd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~AuditFd()
    {
        reset();
    }
    void reset(); // closes it, standard output excepted
    int get() const
    {
        return fd_;
    }

private:
    int fd_ = -1;
};

struct AUDIT_WRITER_T;
using AuditWriterPtr = std::shared_ptr<AUDIT_WRITER_T>;

struct AUDIT_WRITER_OPTIONS_T {
    AuditFd fd;
    AUDIT_CHAIN_T chain;
    bool lacks_newline = false; // what stands last in the file has no end
    std::function<void(std::function<void()>)> post;
    std::function<void(AUDIT_WRITER_T &)> tick; // by the thread, about once a second
};

enum class AUDIT_ROOM {
    HALF, // for what begins: half of the room, and none while writing fails
    FULL,
    ALWAYS, // for the ends of sessions: as many as have begun
};

AuditWriterPtr startAuditWriter(AUDIT_WRITER_OPTIONS_T options);

// False when there is no room: the line is not kept, and done is not called.
bool offerAuditLine(AUDIT_WRITER_T &writer, AUDIT_ROOM room, std::string members, AuditDone done);

// Whether a line would find room in HALF.
bool hasAuditRoom(AUDIT_WRITER_T &writer);

// What was offered before goes into the old file, unless that cannot be written. The first lines of
// the new one are the given ones.
void switchAuditFile(AUDIT_WRITER_T &writer, AuditFd fd, std::list<std::string> first_lines);

// No callback comes after this; those that wait are destroyed by it.
void muteAuditWriter(AUDIT_WRITER_T &writer);

// Mutes it, and waits. False when something could not be written within the bound.
bool stopAuditWriter(AUDIT_WRITER_T &writer, std::chrono::milliseconds bound);

} // namespace backend
