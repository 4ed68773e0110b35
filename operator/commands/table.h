// Tables for people and JSON for programs, out of what a back end has answered. What it has from
// elsewhere is shown without control characters.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

using Row = std::vector<std::string>;

// Columns as wide as they need to be; the first row is the head. All of it has been written when
// it returns. Throws RequestError, as printJson does.
void printTable(const std::vector<Row> &rows);
// On one line.
void printJson(const nlohmann::json &document);

// A member of an object: as it is, for a terminal, and with "-" where there is none.
std::string rawText(const nlohmann::json &object, const char *name);
std::string textOf(const nlohmann::json &object, const char *name);
std::string textOrDash(const nlohmann::json &object, const char *name);
std::string numberOf(const nlohmann::json &object, const char *name);
// Of seconds since the epoch.
std::string timeOf(const nlohmann::json &object, const char *name);
