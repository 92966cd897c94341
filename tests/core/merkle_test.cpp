#include "core/merkle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>

#include "crypto/hash.h"
#include "support/ledger_samples.h"

namespace norvel::merkle {
namespace {

// The root of the subtree with 2^depth leaf places that starts with `leaves`;
// places without a leaf repeat the subtree on their left.
uint256 subtree(std::span<const uint256> leaves, size_t depth) {
  if (depth == 0) {
    return leaves[0];
  }
  const size_t half = std::min(leaves.size(), size_t{1} << (depth - 1));
  Bytes children = subtree(leaves.first(half), depth - 1).to_bytes();
  append(children, half < leaves.size() ? subtree(leaves.subspan(half), depth - 1).to_bytes() : Bytes(children));
  return crypto::hash256(children);
}

TEST(Merkle, RootsAndBranchesOfSmallTrees) {
  std::mt19937_64 random(5);
  std::vector<uint256> leaves;
  EXPECT_TRUE(compute_merkle_root(leaves).is_zero());
  for (size_t depth = 0; leaves.size() < 19;) {
    leaves.push_back(random_uint256(random));
    depth += leaves.size() > size_t{1} << depth;
    SCOPED_TRACE(leaves.size());
    const uint256 root = compute_merkle_root(leaves);
    EXPECT_EQ(root, subtree(leaves, depth));
    EXPECT_TRUE(compute_merkle_branch(leaves, leaves.size()).empty());
    for (size_t i = 0; i < leaves.size(); ++i) {
      SCOPED_TRACE(i);
      std::vector<uint256> branch = compute_merkle_branch(leaves, i);
      EXPECT_EQ(branch.size(), depth);
      EXPECT_TRUE(verify_merkle_branch(leaves[i], branch, i, root));
      EXPECT_FALSE(verify_merkle_branch(~leaves[i], branch, i, root));
      for (uint256& sibling : branch) {
        sibling = ~sibling;
        EXPECT_FALSE(verify_merkle_branch(leaves[i], branch, i, root));
        sibling = ~sibling;
      }
    }
  }
}

}  // namespace
}  // namespace norvel::merkle
