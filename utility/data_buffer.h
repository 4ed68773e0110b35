// Byte buffer of fixed capacity with a read and a write offset. A message is built payload first;
// its header is then joined in front, so that both leave in one write.
//
// Layout   unread content = data[read_offset, write_offset). One spare byte behind the storage is
//          always 0, so text that fills the whole buffer still ends.
// Bound    every operation fits or fails with -1 and changes nothing. read_offset may be moved past
//          write_offset within the capacity (the length then reads negative); the caller then
//          checks the length before the bytes.
// Owner    of the storage, from initDataBuffer to freeDataBuffer.
// Threads  one at a time; no lock.
#pragma once

#include <cstdint>

struct DATA_BUFFER_T {
    char *data; // owned, capacity + 1 bytes
    std::int32_t capacity;
    std::int32_t read_offset;
    std::int32_t write_offset;
};

// size >= 1. Whatever the record held before is overwritten.
[[nodiscard]] int initDataBuffer(DATA_BUFFER_T *buffer, std::int32_t size) noexcept;
void freeDataBuffer(DATA_BUFFER_T *buffer) noexcept;
// Offsets to 0, storage to zeros.
int resetDataBuffer(DATA_BUFFER_T *buffer) noexcept;
// Offsets to `offset`, which lies within the capacity; the storage keeps its bytes. For a message
// that overwrites what it uses: clearing 50 KB takes as long as masking half of them.
void rewindDataBuffer(DATA_BUFFER_T *buffer, std::int32_t offset) noexcept;
[[nodiscard]] int appendDataBuffer(DATA_BUFFER_T *buffer, const void *bytes,
                                   std::int32_t length) noexcept;
char *getBufferReadPointer(const DATA_BUFFER_T *buffer) noexcept;
char *getBufferWritePointer(const DATA_BUFFER_T *buffer) noexcept;
std::int32_t getBufferDataLength(const DATA_BUFFER_T *buffer) noexcept;
int moveBufferReadPointer(DATA_BUFFER_T *buffer, std::int32_t count) noexcept;
[[nodiscard]] int moveBufferWritePointer(DATA_BUFFER_T *buffer, std::int32_t count) noexcept;
// Shifts the unread content by count bytes; the bytes it uncovers keep their values.
[[nodiscard]] int moveBufferContent(DATA_BUFFER_T *buffer, std::int32_t count) noexcept;
void resetBufferReadPointer(DATA_BUFFER_T *buffer) noexcept;
void resetBufferWritePointer(DATA_BUFFER_T *buffer) noexcept;
// Puts length bytes in front of the unread content: in the room there, or, in a buffer whose
// read_offset is 0, by shifting the content.
[[nodiscard]] int joinContentBeforeBuffer(const void *bytes, std::int32_t length,
                                          DATA_BUFFER_T *buffer) noexcept;
