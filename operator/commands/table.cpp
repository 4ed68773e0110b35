#include "operator/commands/table.h"

#include "operator/carrier/request_error.h"
#include "operator/terminal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

// As many columns as it takes on a terminal, for text that has no wide or combining characters.
std::size_t widthOf(const std::string &text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80; // no byte inside a character
    }));
}

void flushOutput()
{
    if (std::fflush(stdout) != 0)
        throw RequestError(std::string("standard output: ") + std::strerror(errno), false);
}

} // namespace

void printTable(const std::vector<Row> &rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row &row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - widthOf(row[i]) + 2, ' ');
        }
        std::puts(line.c_str());
    }
    flushOutput();
}

std::string rawText(const json &object, const char *name)
{
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string textOf(const json &object, const char *name)
{
    return shown(rawText(object, name));
}

std::string textOrDash(const json &object, const char *name)
{
    const std::string text = textOf(object, name);
    return text.empty() ? "-" : text;
}

std::string numberOf(const json &object, const char *name)
{
    return object.contains(name) ? std::to_string(object.value(name, std::int64_t{0})) : "-";
}

void printJson(const json &document)
{
    std::puts(document.dump(-1, ' ', true).c_str());
    flushOutput();
}

std::string timeOf(const json &object, const char *name)
{
    const auto found = object.find(name);
    return found != object.end() && found->is_number() ? timeText(found->get<std::int64_t>()) : "-";
}
