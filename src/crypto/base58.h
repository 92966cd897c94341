// Base58 text of byte strings; the time grows with the square of the length.
//
// The working number always contributes one digit or byte: an input of k zero
// bytes encodes to k + 1 characters '1', and a text of k characters '1' decodes
// to k + 1 zero bytes.
//
// Threads: free functions without state.

#pragma once

#include <string>

#include "core/bytes.h"

namespace norvel::crypto {

bool is_base58_character(char character);

std::string base58_encode(ByteView data);

// Throws std::runtime_error ("base58_decode: invalid character").
Bytes base58_decode(const std::string& text);

}  // namespace norvel::crypto
