// Configuration store: the gateway's settings in memory, and the text file that keeps them.
//
// File     one key=value a line; everything behind the first = is the value, blanks included. Blank
//          lines and lines that begin with # are comments. A line that is neither, or repeats a
//          key, is reported with its number and skipped. Comments and skipped lines stay where they
//          are when the file is written.
// Read     once, when the store is loaded; a missing file is an empty store.
// Written  on every change, as a whole: a new file beside the old one, flushed to the disk, takes
//          its place by renaming. A reader or a power cut sees the old file or the new one. Mode
//          and owner are kept; only its owner may read a new file: it holds the secret.
// Threads  one.
// Failure  logged here, never with a value; the results are given below.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

constexpr std::size_t CONFIG_KEY_MAX = 128;
constexpr std::size_t CONFIG_VALUE_MAX = std::size_t{64} * 1024;
constexpr std::size_t CONFIG_FILE_MAX = std::size_t{1024} * 1024;

struct CONFIG_LINE_T {
    std::string key;  // empty for a comment or a skipped line
    std::string text; // the value, or the whole line
};

struct CONFIG_STORE_T {
    std::string path;
    std::vector<CONFIG_LINE_T> lines;
    std::map<std::string, std::size_t, std::less<>> places; // key to its line
};

enum STORE_RESULT {
    STORE_CHANGED,
    STORE_UNCHANGED, // the key had this value already
    STORE_REFUSED,   // not a key, not a value, or the file would become too large
    STORE_FAILED,    // not written; the key keeps its value
};

// A key is letters, digits, '_', '.' and '-'; a value is UTF-8 without line feeds (the bus knows no
// NUL either).
bool is_config_key(std::string_view key) noexcept;
bool is_config_value(std::string_view value) noexcept;

// 0, or -1 for a file that cannot be read or is too large.
[[nodiscard]] int load_config_store(CONFIG_STORE_T &store, const std::string &path);

// Appends the lines of a file's content; the warnings name the store's path. Returns how many
// were skipped.
int parse_config_lines(CONFIG_STORE_T &store, std::string_view content);

// The value, borrowed until the next change; null when the key is not set.
const std::string *find_config_value(const CONFIG_STORE_T &store, std::string_view key) noexcept;

[[nodiscard]] STORE_RESULT set_config_value(CONFIG_STORE_T &store, std::string_view key,
                                            std::string_view value);
