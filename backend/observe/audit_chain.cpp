#include "backend/observe/audit_chain.h"

#include <array>
#include <charconv>
#include <openssl/evp.h>
#include <stdexcept>
#include <utility>

namespace backend {

constexpr std::size_t PART_MAX = std::size_t{64} * 1024;
constexpr std::size_t FRAGMENTS_MAX = 16;
constexpr std::string_view LINE_START = "{\"seq\":";
constexpr std::string_view PREV_START = ",\"prev\":\"";
constexpr std::string_view HASH_START = "\",\"hash\":\"";
constexpr std::string_view LINE_END = "\"}";
constexpr std::size_t HASH_PART_SIZE = HASH_START.size() + AUDIT_HASH_SIZE + LINE_END.size();
constexpr std::size_t TAIL_SIZE = PREV_START.size() + AUDIT_HASH_SIZE + HASH_PART_SIZE;

// ---- hashing

struct DigestFree {
    void operator()(EVP_MD_CTX *context) const noexcept
    {
        EVP_MD_CTX_free(context);
    }
};

class Sha256 {
public:
    Sha256() : context_(EVP_MD_CTX_new())
    {
        check(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    }
    void add(std::string_view bytes)
    {
        check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
    }
    // Begins anew afterwards.
    std::array<char, AUDIT_HASH_SIZE> take()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
        check(EVP_DigestFinal_ex(context_.get(), bytes.data(), nullptr) == 1 &&
              EVP_DigestInit_ex(context_.get(), nullptr, nullptr) == 1);
        static constexpr char DIGITS[] = "0123456789abcdef";
        std::array<char, AUDIT_HASH_SIZE> text{};
        for (std::size_t i = 0; i < text.size(); i += 2) {
            text[i] = DIGITS[bytes[i / 2] >> 4];
            text[i + 1] = DIGITS[bytes[i / 2] & 15];
        }
        return text;
    }

private:
    static void check(bool is_right)
    {
        if (!is_right) throw std::runtime_error("SHA-256 cannot be computed");
    }
    std::unique_ptr<EVP_MD_CTX, DigestFree> context_;
};

static std::string_view viewOf(const std::array<char, AUDIT_HASH_SIZE> &hash)
{
    return {hash.data(), hash.size()};
}

std::string closeAuditLine(AUDIT_CHAIN_T &chain, std::string_view members)
{
    static thread_local Sha256 sha;
    chain.seq++;
    std::string line;
    line.reserve(members.size() + 256);
    line += LINE_START;
    line += std::to_string(chain.seq);
    line += ',';
    line += members;
    line += PREV_START;
    line += chain.hash;
    sha.add(line);
    sha.add("\"");
    chain.hash = viewOf(sha.take());
    line += HASH_START;
    line += chain.hash;
    line += LINE_END;
    line += '\n';
    return line;
}

// ---- members. A quotation mark inside a text stands behind a backslash, so the pattern of a
// member's name fits only where a member is.

std::string_view auditTextOf(std::string_view line, std::string_view member)
{
    const std::string pattern = ",\"" + std::string(member) + "\":\"";
    const std::size_t found = line.find(pattern);
    if (found == std::string_view::npos) return {};
    const std::size_t start = found + pattern.size();
    for (std::size_t i = start; i < line.size(); i++) {
        if (line[i] == '\\')
            i++;
        else if (line[i] == '"')
            return line.substr(start, i - start);
    }
    return {};
}

std::string_view auditEventOf(std::string_view line)
{
    return auditTextOf(line, "event");
}

// ---- checking

struct AuditChecker::HASHER_T {
    Sha256 line;
    Sha256 overlong;
};

AuditChecker::AuditChecker() : hasher_(std::make_unique<HASHER_T>()) {}
AuditChecker::~AuditChecker() = default;

void AuditChecker::report(AUDIT_FAULT fault, std::string text)
{
    if (on_finding) on_finding({fault, line_number_, file_number_, std::move(text)});
}

static AUDIT_FINDING_T findingOf(const AUDIT_FRAGMENT_T &fragment)
{
    if (fragment.is_unended)
        return {AUDIT_FAULT::UNENDED, fragment.line, fragment.file,
                "has no end: it was written in part, or cut"};
    return {AUDIT_FAULT::NO_LINE, fragment.line, fragment.file, "is no line of the audit"};
}

// The next start names a torn line; without that the chain has something in it that is no line.
void AuditChecker::settleFragments(std::string_view line)
{
    if (fragments_.empty()) return;
    const AUDIT_FRAGMENT_T first = fragments_.front();
    if (auditEventOf(line) == "torn" && auditTextOf(line, "sha256") == first.hash) {
        fragments_.erase(fragments_.begin());
        if (on_finding)
            on_finding({AUDIT_FAULT::TORN, first.line, first.file,
                        "was torn by a crash, " + std::to_string(first.size) + " bytes are left"});
        return;
    }
    for (const AUDIT_FRAGMENT_T &fragment : std::exchange(fragments_, {}))
        if (on_finding) on_finding(findingOf(fragment));
}

static std::string missingText(std::uint64_t before, std::uint64_t seq)
{
    if (seq > before + 2)
        return std::to_string(seq - before - 1) + " lines before it are missing (seq " +
               std::to_string(before + 1) + " to " + std::to_string(seq - 1) + ")";
    if (seq == before + 2)
        return "the line before it is missing (seq " + std::to_string(before + 1) + ")";
    if (seq == before + 1) return "the line before it is not the one that it follows";
    return "stands in the wrong place (seq " + std::to_string(seq) + " after " +
           std::to_string(before) + ")";
}

void AuditChecker::checkPlace(std::string_view line, std::uint64_t seq, std::string_view prev)
{
    if (has_place_) {
        if (prev != chain_.hash) report(AUDIT_FAULT::MISSING, missingText(chain_.seq, seq));
        return;
    }
    has_place_ = true;
    const bool is_first = seq == 1 && prev == chain_.hash;
    if (!is_first && auditEventOf(line) != "continued")
        report(AUDIT_FAULT::MISSING,
               "the lines before it are missing (seq 1 to " + std::to_string(seq - 1) + ")");
}

// False when it has not the shape of a line.
bool AuditChecker::readLine(std::string_view line)
{
    if (line.size() < LINE_START.size() + 1 + TAIL_SIZE || !line.starts_with(LINE_START) ||
        !line.ends_with(LINE_END))
        return false;
    const std::string_view tail = line.substr(line.size() - TAIL_SIZE);
    const std::string_view hash_part = line.substr(line.size() - HASH_PART_SIZE);
    if (!tail.starts_with(PREV_START) || !hash_part.starts_with(HASH_START)) return false;
    const char *const digits = line.data() + LINE_START.size();
    std::uint64_t seq = 0;
    const auto number = std::from_chars(digits, line.data() + line.size(), seq);
    if (number.ec != std::errc{} || *number.ptr != ',' || seq == 0) return false;
    const std::string_view prev = tail.substr(PREV_START.size(), AUDIT_HASH_SIZE);
    const std::string_view hash = hash_part.substr(HASH_START.size(), AUDIT_HASH_SIZE);

    hasher_->line.add(line.substr(0, line.size() - HASH_PART_SIZE + 1));
    const bool is_unchanged = viewOf(hasher_->line.take()) == hash;
    settleFragments(line);
    if (is_unchanged) {
        checkPlace(line, seq, prev);
        good_lines_++;
    } else {
        report(AUDIT_FAULT::CHANGED, "was changed");
        has_place_ = true;
    }
    chain_.seq = seq;
    chain_.hash = hash;
    if (is_unchanged && on_line) on_line(line);
    return true;
}

void AuditChecker::takeLine(std::string_view line)
{
    line_number_++;
    if (!is_overlong_ && readLine(line)) return;
    if (fragments_.size() == FRAGMENTS_MAX) settleFragments({});
    Sha256 &sha = is_overlong_ ? hasher_->overlong : hasher_->line;
    if (!is_overlong_) sha.add(line);
    fragments_.push_back({is_overlong_ ? part_size_ : line.size(), std::string(viewOf(sha.take())),
                          line_number_, file_number_, false});
}

void AuditChecker::keepPart(std::string_view bytes)
{
    part_size_ += bytes.size();
    if (!is_overlong_ && part_.size() + bytes.size() <= PART_MAX) {
        part_ += bytes;
        return;
    }
    if (!is_overlong_) hasher_->overlong.add(part_);
    is_overlong_ = true;
    hasher_->overlong.add(bytes);
}

void AuditChecker::feed(std::string_view bytes)
{
    for (std::size_t end = bytes.find('\n'); end != std::string_view::npos;
         end = bytes.find('\n')) {
        if (part_size_ == 0) {
            takeLine(bytes.substr(0, end));
        } else {
            keepPart(bytes.substr(0, end));
            takeLine(part_);
        }
        part_.clear();
        part_size_ = 0;
        is_overlong_ = false;
        bytes.remove_prefix(end + 1);
    }
    if (!bytes.empty()) keepPart(bytes);
}

bool AuditChecker::nextFile()
{
    const bool is_unended = part_size_ > 0;
    const std::uint64_t before = good_lines_;
    if (is_unended) feed("\n");
    if (is_unended && good_lines_ == before && !fragments_.empty())
        fragments_.back().is_unended = true;
    file_number_++;
    line_number_ = 0;
    return is_unended;
}

void AuditChecker::finish()
{
    settleFragments({});
}

} // namespace backend
