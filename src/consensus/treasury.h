// The treasury: half of a block's fees is paid to a public-key hash that no
// private key belongs to.
//
// Threads: safe from any thread; the identity is computed once, on first use.

#pragma once

#include <string>

#include "core/bytes.h"

namespace norvel::treasury {

// Computes the identity now rather than on first use; later calls do nothing.
void ensure_initialized();

// HASH160 of the treasury seed, 20 bytes.
const Bytes& get_pubkey_hash();

// The Base58Check address of that hash, version byte 0.
const std::string& get_address();

}  // namespace norvel::treasury
