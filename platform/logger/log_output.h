// Where finished lines go: standard error, each at once, or several of them in one write.
//
// Threads  every thread may put lines; their order is that of their times.
// Failure  lines that standard error does not take, after a short wait for room, are lost. What is
//          left of a line of which a part was taken ends before the next line begins.
#pragma once

#include <cstddef>

// Room that a line leaves in front of its text: a spare line end and the time.
constexpr std::size_t LINE_ROOM = 1 + sizeof "2026-11-22T19:20:11.123Z " - 1;
// Lines gathered are written when there is this much of them, or when the first of them is that old
// at the next.
constexpr std::size_t GATHER_SIZE = std::size_t{32} * 1024;
constexpr long GATHER_MS = 200;

struct OUTPUT_MODE_T {
    bool timed;    // the time is put in front of the text
    bool may_wait; // it need not be written before the call returns
};

// line[LINE_ROOM, length) is the text with its line end, length at most GATHER_SIZE; the room is
// overwritten.
void output_line(char *line, std::size_t length, const OUTPUT_MODE_T &mode) noexcept;
std::size_t gathered_bytes() noexcept;
void flush_lines() noexcept;
