// Changes a file in one step: whoever reads it sees the old text or the new one, and a power cut
// leaves one of them. Two editors do not lose what the other one wrote.
// Kept     owner, group and mode. The new text is written to FILE.new beside it, which replaces it.
// Threads  none; other processes are kept out by a lock on the file (flock(2)), for EDIT_WAIT.
// Failure  std::runtime_error, in which case the file is as it was.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace backend {

constexpr auto EDIT_WAIT = std::chrono::seconds(10);

std::string readFile(const std::string &path);

// edit: the new text for the old one; the same text changes nothing. What it throws is passed on.
void editFile(const std::string &path, const std::function<std::string(std::string text)> &edit);

// A file that must not be there yet, on the disk when this returns.
void makeFile(const std::string &path, unsigned mode, std::string_view text);
void syncFolderOf(const std::string &path);

} // namespace backend
