// A second evaluator of operators.json, to compare the real one with: loops over the JSON, written
// from the rules of docs/policy.md.
#pragma once

#include "backend/policy/policy.h"

#include <nlohmann/json.hpp>

// file: one that parsePolicy accepts. Its reason is left out.
backend::DECISION_T plainDecision(const nlohmann::json &file, const backend::PRINCIPAL_T &who,
                                  backend::RIGHT right, const backend::TARGET_T &target);
std::vector<std::string> plainSshAccounts(const nlohmann::json &file,
                                          const backend::PRINCIPAL_T &who,
                                          const backend::TARGET_T &target);
