// Merkle trees over transaction ids. A parent is the double SHA-256 of its two
// children's 64 bytes; a lone last element of a level is paired with itself.

#pragma once

#include <cstddef>
#include <vector>

#include "core/uint256.h"

namespace norvel::merkle {

// Zero for no hash, the hash itself for one.
uint256 compute_merkle_root(const std::vector<uint256>& hashes);

// The siblings on the way from `index` to the root, leaf level first; empty for
// an index out of range.
std::vector<uint256> compute_merkle_branch(const std::vector<uint256>& hashes, size_t index);

// True when `leaf` at `index` leads to `root` through `branch`.
bool verify_merkle_branch(const uint256& leaf, const std::vector<uint256>& branch, size_t index, const uint256& root);

}  // namespace norvel::merkle
