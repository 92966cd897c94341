#include "core/merkle.h"

#include <algorithm>
#include <array>

#include "crypto/hash.h"

namespace norvel::merkle {

namespace {

uint256 hash_pair(const uint256& left, const uint256& right) {
  std::array<uint8_t, 2 * uint256::kSize> children;
  std::copy(left.bytes().begin(), left.bytes().end(), children.begin());
  std::copy(right.bytes().begin(), right.bytes().end(), children.begin() + uint256::kSize);
  return crypto::hash256(children);
}

// Replaces a level of at least two hashes by the one above it.
void climb(std::vector<uint256>& level) {
  const size_t parents = (level.size() + 1) / 2;
  for (size_t i = 0; i < parents; ++i) {
    const size_t left = 2 * i;
    level[i] = hash_pair(level[left], level[std::min(left + 1, level.size() - 1)]);
  }
  level.resize(parents);
}

}  // namespace

uint256 compute_merkle_root(const std::vector<uint256>& hashes) {
  if (hashes.empty()) {
    return uint256();
  }
  std::vector<uint256> level = hashes;
  while (level.size() > 1) {
    climb(level);
  }
  return level[0];
}

std::vector<uint256> compute_merkle_branch(const std::vector<uint256>& hashes, size_t index) {
  std::vector<uint256> branch;
  if (index >= hashes.size()) {
    return branch;
  }
  for (std::vector<uint256> level = hashes; level.size() > 1; index /= 2) {
    branch.push_back(level[index % 2 == 1 ? index - 1 : std::min(index + 1, level.size() - 1)]);
    climb(level);
  }
  return branch;
}

bool verify_merkle_branch(const uint256& leaf, const std::vector<uint256>& branch, size_t index, const uint256& root) {
  uint256 current = leaf;
  for (const uint256& sibling : branch) {
    current = index % 2 == 1 ? hash_pair(sibling, current) : hash_pair(current, sibling);
    index >>= 1;
  }
  return current == root;
}

}  // namespace norvel::merkle
