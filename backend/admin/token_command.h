// The tokens of operators.json.
// Failure  std::runtime_error or, for arguments that cannot be meant, std::invalid_argument.
#pragma once

#include "backend/admin/admin.h"

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace backend {

struct TOKEN_T {
    std::string operator_name;
    std::string label;
    int days = 90;
    std::string removed; // label; empty: one is made
};
// The token goes to standard output, alone and once.
void changeTokens(const INSTALLATION_T &installation, const TOKEN_T &wanted);

// As the file has it.
nlohmann::ordered_json tokenEntry(const std::string &token, const std::string &label, int days);

} // namespace backend
