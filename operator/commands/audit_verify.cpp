// The command that checks the audit's chain. It reads files only and needs no back end.
#include "backend/observe/audit_chain.h"
#include "operator/commands/commands.h"
#include "operator/terminal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <unistd.h>

using backend::AUDIT_FAULT;
using backend::AUDIT_FINDING_T;
using backend::AuditChecker;
using nlohmann::ordered_json;

namespace {

constexpr std::size_t PIECE_SIZE = std::size_t{1} << 20;

struct RESULT_T {
    std::vector<AUDIT_FINDING_T> torn; // the first few
    std::optional<AUDIT_FINDING_T> first;
    std::uint64_t faults = 0;
    bool has_expected = false;
};

constexpr std::size_t TORN_MAX = 100;

const char *faultName(AUDIT_FAULT fault)
{
    switch (fault) {
    case AUDIT_FAULT::CHANGED:
        return "changed";
    case AUDIT_FAULT::MISSING:
        return "missing";
    case AUDIT_FAULT::NO_LINE:
        return "no_line";
    case AUDIT_FAULT::TORN:
        return "torn";
    case AUDIT_FAULT::UNENDED:
        return "unended";
    }
    return "";
}

void readFile(const std::string &path, AuditChecker &checker)
{
    struct FILE_T {
        ~FILE_T()
        {
            if (fd > STDERR_FILENO) close(fd);
        }
        int fd;
    };
    const FILE_T file{path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::string piece(PIECE_SIZE, '\0');
    for (;;) {
        const ssize_t count = file.fd < 0 ? -1 : read(file.fd, piece.data(), piece.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::runtime_error(path + ": " + std::strerror(errno));
        if (count == 0) return;
        checker.feed({piece.data(), static_cast<std::size_t>(count)});
    }
}

RESULT_T check(const OPERATOR_OPTIONS_T &options, AuditChecker &checker)
{
    RESULT_T result;
    checker.on_finding = [&result](const AUDIT_FINDING_T &finding) {
        if (finding.fault == AUDIT_FAULT::TORN) {
            if (result.torn.size() < TORN_MAX) result.torn.push_back(finding);
        } else if (result.faults++ == 0) {
            result.first = finding;
        }
    };
    checker.on_line = [&](std::string_view) {
        if (checker.end().hash == options.expected) result.has_expected = true;
    };
    if (options.expected.empty()) checker.on_line = nullptr;
    for (const std::string &path : options.files) {
        readFile(path, checker);
        checker.nextFile();
    }
    checker.finish();
    return result;
}

ordered_json findingJson(const OPERATOR_OPTIONS_T &options, const AUDIT_FINDING_T &finding)
{
    return {{"file", options.files[finding.file]},
            {"line", finding.line},
            {"fault", faultName(finding.fault)},
            {"text", finding.text}};
}

void printFinding(const OPERATOR_OPTIONS_T &options, const AUDIT_FINDING_T &finding)
{
    std::printf("%s: line %llu %s\n", shown(options.files[finding.file]).c_str(),
                static_cast<unsigned long long>(finding.line), finding.text.c_str());
}

} // namespace

int verifyAudit(const OPERATOR_OPTIONS_T &options)
{
    AuditChecker checker;
    const RESULT_T result = check(options, checker);
    const bool lacks_expected = !options.expected.empty() && !result.has_expected;
    const bool is_good = result.faults == 0 && checker.lines() > 0 && !lacks_expected;
    if (options.json) {
        ordered_json answer = {{"good", is_good},
                               {"lines", checker.lines()},
                               {"seq", checker.end().seq},
                               {"hash", checker.end().hash},
                               {"faults", result.faults},
                               {"first", nullptr},
                               {"torn", ordered_json::array()}};
        if (result.first) answer["first"] = findingJson(options, *result.first);
        for (const AUDIT_FINDING_T &torn : result.torn)
            answer["torn"].push_back(findingJson(options, torn));
        if (!options.expected.empty()) answer["expected"] = result.has_expected;
        std::puts(answer.dump(-1, ' ', true, ordered_json::error_handler_t::replace).c_str());
        return is_good ? OPERATOR_DONE : OPERATOR_REFUSED;
    }
    for (const AUDIT_FINDING_T &torn : result.torn)
        printFinding(options, torn);
    if (result.first) printFinding(options, *result.first);
    if (lacks_expected) std::puts("no line has the expected hash");
    std::printf("%s: %llu lines, %llu faults; ends with line %llu, hash %s\n",
                is_good ? "good" : "BAD", static_cast<unsigned long long>(checker.lines()),
                static_cast<unsigned long long>(result.faults),
                static_cast<unsigned long long>(checker.end().seq), checker.end().hash.c_str());
    return is_good ? OPERATOR_DONE : OPERATOR_REFUSED;
}
