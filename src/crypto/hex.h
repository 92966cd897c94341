// Hexadecimal text. Threads: free functions without state.

#pragma once

#include <string>

#include "core/bytes.h"

namespace norvel::crypto {

// Reads pairs of digits, after an optional "0x" or "0X" and with a '0' put in
// front of an odd number of characters. Each pair is read as by std::stoul in
// base 16 and cut to 8 bits, so " 7", "+5" and "5g" are numbers too. Throws
// std::invalid_argument ("stoul") for a pair without a digit at its start.
Bytes hex_to_bytes(const std::string& text);

// Two lower-case digits per byte.
std::string bytes_to_hex(ByteView bytes);

}  // namespace norvel::crypto
