// The variable-width count of the byte formats:
//
//   0 to 252               1 byte
//   up to 65,535           0xfd, then 2 bytes little-endian
//   up to 4,294,967,295    0xfe, then 4 bytes little-endian
//   above                  0xff, then 8 bytes little-endian
//
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"

namespace norvel {

// Appends `value` in the shortest of the four forms.
void append_compact_size(Bytes& out, uint64_t value);

// Reads any of the four forms at `offset`, the shortest or not, and moves
// `offset` past it. Throws std::runtime_error(message), leaving `offset` as it
// was, when the data end before the count does. The count is foreign: compare
// it with the bytes that remain before using it as a length.
uint64_t read_compact_size(ByteView data, size_t& offset, const char* message = kNotEnoughData);

}  // namespace norvel
