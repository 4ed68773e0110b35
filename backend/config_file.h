// Configuration files that are JSON: read whole, and parsed strictly.
// Failure  both throw std::runtime_error. readConfigFile names the file, parseConfig the place in
//          the text.
// Limits   the file has at most 16 MiB; values are nested up to 16 deep.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace backend {

constexpr std::size_t CONFIG_FILE_MAX = std::size_t{16} << 20; // bytes

// A regular file that not everybody may write. Where everybody may read it, a warning is added: the
// file's name, and the words given.
std::string readConfigFile(const std::string &path, std::string_view public_words,
                           std::vector<std::string> &warnings);

// An object that has a member twice is refused, for the last one would count without a word.
nlohmann::json parseConfig(std::string_view text);

} // namespace backend
