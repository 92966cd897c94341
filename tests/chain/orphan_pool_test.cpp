#include "chain/orphan_pool.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace norvel {
namespace {

// The `nonce` tells blocks apart by their hash, the height only by their bytes.
Block child_of(uint64_t parent, uint32_t nonce, uint32_t height = 7, size_t padding_bytes = 0) {
  Block block;
  block.header.prev_hash = uint256(parent);
  block.header.nonce = nonce;
  block.height = height;
  for (; padding_bytes > 0; padding_bytes -= std::min<size_t>(padding_bytes, 50'000)) {
    Transaction& tx = block.transactions.emplace_back();
    tx.inputs.emplace_back().signature.assign(std::min<size_t>(padding_bytes, 50'000), 0);
  }
  return block;
}

TEST(OrphanPool, HandsOutTheChildrenOfAParentInOrderOfArrival) {
  OrphanPool pool;
  for (uint32_t nonce = 0; nonce < 6; ++nonce) {
    EXPECT_TRUE(pool.park(child_of(nonce % 2, 9 - nonce, 7, nonce), 0));
  }
  for (uint32_t i = 0; i < 3; ++i) {
    const auto child = pool.take_child(uint256(uint64_t{1}));
    ASSERT_TRUE(child);
    EXPECT_EQ(child->serialize(), child_of(1, 8 - 2 * i, 7, 2 * i + 1).serialize());
  }
  EXPECT_EQ(pool.size(), 3u);
  EXPECT_FALSE(pool.take_child(uint256(uint64_t{1})));
}

TEST(OrphanPool, KeepsOneOfTheSameBytesAndFourOfAHash) {
  OrphanPool pool;
  // The heights make twins of one block.
  for (const auto& [height, want] :
       {std::pair(1u, true), {1u, false}, {2u, true}, {3u, true}, {4u, true}, {5u, false}}) {
    EXPECT_EQ(pool.park(child_of(1, 1, height), 0), want) << height;
  }
  EXPECT_TRUE(pool.park(child_of(1, 2, 1), 0));
  // One whose height is the one that its coinbase names takes the place of a doubtful twin.
  Block genuine = child_of(1, 1, 9, 4);
  genuine.transactions[0].inputs[0].signature = {9, 0, 0, 0};
  EXPECT_TRUE(pool.park(genuine, 0));
  size_t count = 0;
  for (; pool.take_child(uint256(uint64_t{1})); ++count) {
  }
  EXPECT_EQ(count, 5u);
}

TEST(OrphanPool, HoldsSixtyFourBlocksAndThirtyTwoMebibytes) {
  constexpr size_t kLimit = 33'554'432;
  OrphanPool pool;
  size_t padding = kLimit;
  for (uint32_t nonce = 0; nonce < 33; ++nonce) {
    const Block block = child_of(1, nonce, 7, 1'000'000);
    padding -= block.serialize().size();
    EXPECT_TRUE(pool.park(block, 0));
  }
  const size_t left = padding;
  while (child_of(1, 99, 7, padding).serialize().size() > left) {
    --padding;
  }
  EXPECT_FALSE(pool.park(child_of(1, 99, 7, padding + 1), 0));
  EXPECT_TRUE(pool.park(child_of(1, 99, 7, padding), 0));
  EXPECT_EQ(pool.total_bytes(), kLimit);

  OrphanPool many;
  for (uint32_t nonce = 0; nonce < 65; ++nonce) {
    EXPECT_EQ(many.park(child_of(nonce, nonce), 0), nonce < 64);
  }
}

TEST(OrphanPool, ForgetsAfterTenMinutes) {
  OrphanPool pool;
  pool.park(child_of(1, 1), 1'000);
  pool.park(child_of(1, 2), 1'001);
  for (const auto& [now_s, left] : {std::pair<uint64_t, size_t>(0, 2), {1'599, 2}, {1'600, 1}, {1'601, 0}}) {
    pool.remove_expired(now_s);
    EXPECT_EQ(pool.size(), left) << now_s;
  }
}

}  // namespace
}  // namespace norvel
