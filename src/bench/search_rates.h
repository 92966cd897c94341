// How fast a kernel searches, alone and inside a Miner, and what it finds in a
// fixed range of nonces.
//
// Threads: free functions without state; those that measure start threads of
// their own and have joined them when they return.

#pragma once

#include <cstdint>

#include "mining/nonce_search.h"

namespace norvel::bench {

// Hashes per second of `threads` threads that do nothing but call the kernel,
// for `seconds`.
double kernel_rate(const mining::SearchKernel& kernel, uint32_t threads, double seconds);

// Hashes per second of a Miner with this kernel, whose templates come from
// memory. Throws std::runtime_error when the Miner does not start.
double miner_rate(const mining::SearchKernel& kernel, uint32_t threads, double seconds);

// A digest of the nonces that meet a target in a range of 65,536 around the wrap
// at 2^32, where one in 16 does: as the plain hash of each header has it, as a
// kernel names them, and as a walk with that kernel, confirming each, finds them.
// All are the same.
uint64_t plain_checksum();
uint64_t kernel_checksum(const mining::SearchKernel& kernel);
uint64_t walk_checksum(const mining::SearchKernel& kernel);

}  // namespace norvel::bench
