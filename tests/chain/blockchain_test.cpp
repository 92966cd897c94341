// What becomes of blocks on the tip, beside it and before their parents, and
// what is left after a restart.

#include "chain/chain_scene.h"
#include "support/captured_stderr.h"

namespace norvel {
namespace {

TEST(Blockchain, StartsWithTheGenesisBlockAndComesBackToItsTip) {
  ChainScene scene;
  EXPECT_EQ(scene.chain().get_best_hash(), make_genesis_block().get_hash());
  EXPECT_EQ(scene.chain().get_total_supply(), kInitialSubsidy);
  for (int i = 0; i < 12; ++i) {
    scene.extend();
  }
  const Bytes state = scene.chain().get_snapshot_bytes();
  scene.reopen();
  EXPECT_EQ(scene.chain().get_best_height(), 12u);
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), state);
  EXPECT_EQ(state, scene.replayed_snapshot());
}

TEST(Blockchain, RefusesByPlaceInTheChain) {
  ChainScene scene;
  const Block first = scene.extend();
  Block early = make_child(first);
  early.height = 5;
  Block genesis = make_genesis_block();
  genesis.header.timestamp += 1;
  mine(genesis);
  Block easy = make_child(first);
  easy.header.bits = 0x207fffff;
  mine(easy);
  const struct {
    const char* label;
    Block block;
    std::string want;
  } rows[] = {
      {"the tip again", first, "Block already exists"},
      {"another genesis block", genesis, "Competing genesis block rejected"},
      {"wrong height", early, "Invalid block height (parent at 1, block claims 5"},
      {"unknown parent", make_branch(first, 2).back(), "orphan: parent block not known yet (height 3)"},
      {"easier bits", easy, "Incorrect difficulty bits (expected 0x1f7fffff, got 0x207fffff"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(scene.refusal(row.block), row.want);
  }
}

TEST(Blockchain, SwitchesToTheHeavierBranchAndBack) {
  ChainScene scene;
  const Block fork = scene.extend();
  const std::vector<Block> left = make_branch(fork, 3, {.message = "left"});
  const std::vector<Block> right = make_branch(fork, 5, {.message = "right"});
  scene.add_all(left);
  scene.add_all({right.begin(), right.begin() + 3});
  EXPECT_EQ(scene.chain().get_best_hash(), left.back().get_hash()) << "equal work changes nothing";
  scene.add(right[3]);
  EXPECT_EQ(scene.chain().get_best_hash(), right[3].get_hash());
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
  scene.add_all(make_branch(left.back(), 2, {.message = "left"}));
  EXPECT_EQ(scene.chain().get_best_height(), 6u);
  EXPECT_EQ(scene.chain().get_fork_height(right[3].get_hash()), 1u);
  scene.reopen();
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
}

TEST(Blockchain, ConnectsParkedBlocksInOneCall) {
  ChainScene scene;
  const std::vector<Block> branch = make_branch(make_genesis_block(), 30);
  std::string error;
  for (size_t i = branch.size() - 1; i > 0; --i) {
    EXPECT_FALSE(scene.chain().add_block(branch[i], error));
  }
  BlockReport report;
  EXPECT_TRUE(scene.chain().add_block(branch[0], error, report)) << error;
  EXPECT_EQ(report.from_orphans.size(), 29u);
  EXPECT_EQ(scene.chain().get_best_hash(), branch.back().get_hash());
}

}  // namespace
}  // namespace norvel
