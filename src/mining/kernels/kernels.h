// The kernels, one file per instruction set. Each tests first_nonce,
// first_nonce + stride, ... modulo 2^32, as many as its row in the table says, and
// sets bit i where the hash's most significant 32 bits are at most the target's.
//
// Their files see plain words only: an inline function of a shared header could
// be linked into the rest of the program with instructions that the processor
// lacks.

#pragma once

#include <cstdint>

#include "mining/kernels/prepared_words.h"

namespace norvel::mining::kernels {

// On x86-64 processors with the instructions of the name; never called on others.
uint32_t test_group_avx512(const PreparedWords& header, uint32_t first_nonce, uint32_t stride);
uint32_t test_group_sha_ni(const PreparedWords& header, uint32_t first_nonce, uint32_t stride);
uint32_t test_group_avx2(const PreparedWords& header, uint32_t first_nonce, uint32_t stride);

uint32_t test_group_portable(const PreparedWords& header, uint32_t first_nonce, uint32_t stride);

}  // namespace norvel::mining::kernels
