// djb2: h = 5381, then h * 33 + byte for each byte of the text, in unsigned 32-bit arithmetic.
#pragma once

#include <cstdint>

// Asserts that the text is not null.
std::uint32_t hash_string(const void *string);
