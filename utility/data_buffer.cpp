#include "utility/data_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>

static_assert(std::is_standard_layout_v<DATA_BUFFER_T>);

namespace {

// Sums are formed in 64 bits: no count that a caller can name overflows them.
bool fits(const DATA_BUFFER_T *buffer, std::int64_t offset, std::int64_t count)
{
    return offset + count >= 0 && offset + count <= buffer->capacity;
}

int move_offset(const DATA_BUFFER_T *buffer, std::int32_t *offset, std::int32_t count)
{
    if (!fits(buffer, *offset, count)) return -1;
    *offset += count;
    return 0;
}

} // namespace

int initDataBuffer(DATA_BUFFER_T *buffer, std::int32_t size) noexcept
{
    if (buffer == nullptr || size < 1) return -1;
    void *storage = std::calloc(static_cast<std::size_t>(size) + 1, 1);
    if (storage == nullptr) return -1;
    *buffer = {static_cast<char *>(storage), size, 0, 0};
    return 0;
}

void freeDataBuffer(DATA_BUFFER_T *buffer) noexcept
{
    if (buffer == nullptr) return;
    std::free(buffer->data);
    *buffer = {};
}

int resetDataBuffer(DATA_BUFFER_T *buffer) noexcept
{
    buffer->read_offset = 0;
    buffer->write_offset = 0;
    if (buffer->data != nullptr) {
        std::memset(buffer->data, 0, static_cast<std::size_t>(buffer->capacity) + 1);
    }
    return 0;
}

void rewindDataBuffer(DATA_BUFFER_T *buffer, std::int32_t offset) noexcept
{
    buffer->read_offset = offset;
    buffer->write_offset = offset;
}

int appendDataBuffer(DATA_BUFFER_T *buffer, const void *bytes, std::int32_t length) noexcept
{
    if (length < 0 || !fits(buffer, buffer->write_offset, length)) return -1;
    if (length == 0) return 0;
    if (bytes == nullptr) return -1;
    std::memcpy(getBufferWritePointer(buffer), bytes, static_cast<std::size_t>(length));
    buffer->write_offset += length;
    return 0;
}

char *getBufferReadPointer(const DATA_BUFFER_T *buffer) noexcept
{
    return buffer->data + buffer->read_offset;
}

char *getBufferWritePointer(const DATA_BUFFER_T *buffer) noexcept
{
    return buffer->data + buffer->write_offset;
}

std::int32_t getBufferDataLength(const DATA_BUFFER_T *buffer) noexcept
{
    return buffer->write_offset - buffer->read_offset;
}

int moveBufferReadPointer(DATA_BUFFER_T *buffer, std::int32_t count) noexcept
{
    return move_offset(buffer, &buffer->read_offset, count);
}

int moveBufferWritePointer(DATA_BUFFER_T *buffer, std::int32_t count) noexcept
{
    return move_offset(buffer, &buffer->write_offset, count);
}

int moveBufferContent(DATA_BUFFER_T *buffer, std::int32_t count) noexcept
{
    // Both offsets, because a read offset past the write offset must not leave the storage either.
    if (!fits(buffer, buffer->read_offset, count) || !fits(buffer, buffer->write_offset, count)) {
        return -1;
    }
    const std::int32_t length = std::max(getBufferDataLength(buffer), 0);
    char *content = getBufferReadPointer(buffer);
    if (length > 0) std::memmove(content + count, content, static_cast<std::size_t>(length));
    buffer->read_offset += count;
    buffer->write_offset += count;
    return 0;
}

void resetBufferReadPointer(DATA_BUFFER_T *buffer) noexcept
{
    buffer->read_offset = 0;
}

void resetBufferWritePointer(DATA_BUFFER_T *buffer) noexcept
{
    buffer->write_offset = 0;
}

int joinContentBeforeBuffer(const void *bytes, std::int32_t length, DATA_BUFFER_T *buffer) noexcept
{
    const std::int32_t content = getBufferDataLength(buffer);
    // Refused before the content moves: past this point nothing can fail.
    if (length < 0 || content < 0 || (bytes == nullptr && length > 0)) return -1;
    if (length > 0 && buffer->read_offset >= length) {
        buffer->read_offset -= length;
        std::memcpy(getBufferReadPointer(buffer), bytes, static_cast<std::size_t>(length));
        return 0;
    }
    if (moveBufferContent(buffer, length) != 0) return -1;
    resetBufferReadPointer(buffer);
    resetBufferWritePointer(buffer);
    if (appendDataBuffer(buffer, bytes, length) != 0) return -1;
    return moveBufferWritePointer(buffer, content);
}
