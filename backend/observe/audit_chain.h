// The chain of hashes through the lines of the audit: how a line is closed, and how a file is
// checked. Shared by the back end and by `remote-access audit verify`.
// Shape    {"seq":N,MEMBERS,"prev":"HASH","hash":"HASH"}: hash is the SHA-256 of the line up to the
//          comma in front of "hash", in lower-case hexadecimal digits; prev is the hash of the line
//          before. The first line of all has seq 1 and a prev of zeros.
// Threads  no shared state; an object belongs to one thread at a time.
// Limits   the checker keeps 64 KiB of a line and up to 16 torn ones, however long the file is.
// Failure  std::runtime_error when the cryptographic library refuses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

constexpr std::size_t AUDIT_HASH_SIZE = 64;

// Where a chain ends: the number and the hash of its last line.
struct AUDIT_CHAIN_T {
    std::uint64_t seq = 0;
    std::string hash = std::string(AUDIT_HASH_SIZE, '0');
};

// The line with its newline; the chain then ends with it. members: "\"time\":...,...", no braces.
std::string closeAuditLine(AUDIT_CHAIN_T &chain, std::string_view members);

enum class AUDIT_FAULT {
    CHANGED, // its hash does not fit
    MISSING, // something is missing or was put in front of it: it does not follow its predecessor
    NO_LINE, // not of the audit's shape, and not named as torn
    TORN,    // written in part before a crash; a later line says so. No fault of the chain.
    UNENDED, // the last line has no newline: a crash without a new start, or the file was cut
};

struct AUDIT_FINDING_T {
    AUDIT_FAULT fault;
    std::uint64_t line; // counted from 1 in its file
    std::size_t file;   // as counted by nextFile
    std::string text;
};

// A line that could not be read, until a line behind it says that it was torn.
struct AUDIT_FRAGMENT_T {
    std::uint64_t size;
    std::string hash; // of its bytes without the newline
    std::uint64_t line;
    std::size_t file;
    bool is_unended; // nothing came behind it in its file
};

// Reads files of one chain in their order, in pieces of any size.
class AuditChecker {
public:
    // Called for each line with a good hash, without its newline. May be empty.
    std::function<void(std::string_view line)> on_line;
    std::function<void(const AUDIT_FINDING_T &finding)> on_finding;

    AuditChecker();
    AuditChecker(const AuditChecker &) = delete;
    AuditChecker &operator=(const AuditChecker &) = delete;
    ~AuditChecker();

    void feed(std::string_view bytes);

    // The end of a file. True when its last line lacks its newline: it counts as a line when it is
    // whole apart from that, else it is among fragments().
    bool nextFile();

    // After the last file: fragments that nothing has named as torn become findings.
    void finish();

    const AUDIT_CHAIN_T &end() const
    {
        return chain_;
    }
    std::uint64_t lines() const
    {
        return good_lines_;
    } // with a good hash
    const std::vector<AUDIT_FRAGMENT_T> &fragments() const
    {
        return fragments_;
    }

private:
    void takeLine(std::string_view line);
    bool readLine(std::string_view line);
    void checkPlace(std::string_view line, std::uint64_t seq, std::string_view prev);
    void settleFragments(std::string_view line);
    void report(AUDIT_FAULT fault, std::string text);
    void keepPart(std::string_view bytes);

    struct HASHER_T;
    std::unique_ptr<HASHER_T> hasher_;
    std::string part_;            // the beginning of a line that the last piece did not end
    bool is_overlong_ = false;    // part_ is full; the rest of the line is only hashed
    std::uint64_t part_size_ = 0; // of the whole line so far
    std::uint64_t line_number_ = 0;
    std::size_t file_number_ = 0;
    std::uint64_t good_lines_ = 0;
    bool has_place_ = false; // a line was read, so the next one must follow it
    AUDIT_CHAIN_T chain_;
    std::vector<AUDIT_FRAGMENT_T> fragments_;
};

// The event of a line, or an empty text.
std::string_view auditEventOf(std::string_view line);

// A text member of a line as it stands there, escapes included; empty when there is none.
std::string_view auditTextOf(std::string_view line, std::string_view member);

} // namespace backend
