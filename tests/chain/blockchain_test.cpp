// What becomes of blocks on the tip, beside it and before their parents, and
// what is left after a restart.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "chain/chain_scene.h"
#include "support/captured_stderr.h"

namespace norvel {
namespace {

// Changes the last byte of the first record of `block`, so that its body no longer fits its header; a second time
// back again.
void damage_stored_block(const std::string& path, const Block& block) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(file)), {});
  const Bytes bytes = block.serialize();
  const size_t at = content.find(std::string(bytes.begin(), bytes.end() - 1));
  ASSERT_NE(at, std::string::npos);
  const size_t last = at + bytes.size() - 1;
  file.clear();
  file.seekp(static_cast<std::streamoff>(last));
  file.put(static_cast<char>(content.at(last) ^ 1));
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
  const std::tuple<const char*, Block, std::string> rows[] = {
      {"the tip again", first, "Block already exists"},
      {"another genesis block", genesis, "Competing genesis block rejected"},
      {"wrong height", early, "Invalid block height (parent at 1, block claims 5"},
      {"unknown parent", make_branch(first, 2).back(), "orphan: parent block not known yet (height 3)"},
      {"easier bits", easy, "Incorrect difficulty bits (expected 0x1f7fffff, got 0x207fffff"},
  };
  for (const auto& [label, block, want] : rows) {
    SCOPED_TRACE(label);
    EXPECT_EQ(scene.refusal(block), want);
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

TEST(Blockchain, ReportsParkedBlocksThatCameOntoTheActiveChainByASwitch) {
  ChainScene scene;
  const Block fork = scene.extend();
  scene.add_all(make_branch(fork, 2, {.message = "active"}));
  const std::vector<Block> side = make_branch(fork, 4, {.message = "side"});
  const Block lighter = make_child(side[1], {.message = "lighter"});
  std::string error;
  for (const Block& block : {side[3], side[2], lighter, side[1]}) {
    EXPECT_FALSE(scene.chain().add_block(block, error));
  }
  BlockReport report;
  EXPECT_TRUE(scene.chain().add_block(side[0], error, report)) << error;
  EXPECT_EQ(report.fate, BlockFate::CONNECTED);
  const std::vector<uint256> want = {side[1].get_hash(), side[2].get_hash(), side[3].get_hash()};
  EXPECT_EQ(report.from_orphans, want) << "without the one that stays on a side chain";
}

TEST(Blockchain, StoresOldForksUpToTheirLimits) {
  const std::vector<Block> active = make_branch(make_genesis_block(), 721, {.message = "active"});
  const std::vector<Block> old = make_branch(make_genesis_block(), 4, {.message = "old"});
  const Block recent = make_child(active[0], {.message = "recent"});
  const std::tuple<const char*, uint64_t, uint64_t, size_t> rows[] = {
      {"blocks", 3, 1'000'000, 3},
      {"bytes, reached", 100, 3 * old[0].size(), 3},
      {"bytes, one fewer", 100, 3 * old[0].size() - 1, 2},
  };
  for (const auto& [label, blocks_max, bytes_max, stored_count] : rows) {
    SCOPED_TRACE(label);
    ChainOptions options = small_options();
    options.old_fork_blocks_max = blocks_max;
    options.old_fork_bytes_max = bytes_max;
    ChainScene scene(options);
    {
      const Blockchain::WriteScope scope(scene.chain());
      scene.add_all(active);
    }
    scene.add_all({old.begin(), old.begin() + static_cast<std::ptrdiff_t>(stored_count)});
    const std::string want =
        "Side-chain block not stored: room for old forks is used up (fork 721 blocks below the tip)";
    EXPECT_EQ(scene.refusal(old[stored_count]), want);
    scene.add(recent);
    scene.reopen();
    EXPECT_EQ(scene.refusal(old[stored_count]), want) << "after a restart";
  }
}

TEST(Blockchain, GivesATemplateWhatItIsBuiltOn) {
  ChainScene scene;
  const Block first = scene.extend();
  const auto coin = output_of(first.transactions[0]);
  const Transaction parent = pay(sample_key(1), {coin}, {coin.second.value});
  const Transaction child = pay(sample_key(2), {output_of(parent)}, {coin.second.value});
  std::map<OutPoint, TxOut> outputs = {{{uint256(uint64_t{7}), 0}, TxOut()}};
  const TemplateBase base = scene.chain().read_template_base({parent, child}, outputs);
  EXPECT_EQ(base.best_hash, first.get_hash());
  EXPECT_EQ(base.next_height, 2u);
  EXPECT_EQ(base.next_bits, make_child(first).header.bits);
  EXPECT_EQ(base.prev_time, first.header.timestamp);
  EXPECT_EQ(base.total_supply, 2 * kInitialSubsidy);
  EXPECT_FALSE(base.distribution_required);
  ASSERT_EQ(outputs.size(), 1u) << "those of the chain only";
  EXPECT_EQ(outputs.begin()->first, coin.first);
  EXPECT_EQ(outputs.begin()->second.value, coin.second.value);
}

TEST(Blockchain, ReorganisesSevenHundredAndTwentyBlocksAndNotOneMore) {
  ChainScene scene;
  const Blockchain::WriteScope scope(scene.chain());
  const std::vector<Block> active = make_branch(make_genesis_block(), 721, {.message = "active"});
  scene.add_all(active);
  EXPECT_TRUE(std::filesystem::exists(scene.directory() / kSnapshotFile)) << "the 500th block writes one";

  // The same number of blocks above the genesis block and above block 1.
  const std::vector<Block> deep = make_branch(make_genesis_block(), 722, {.message = "deep"});
  scene.add_all({deep.begin(), deep.end() - 1});
  EXPECT_EQ(scene.refusal(deep.back()), "Reorg to side chain failed: reorg depth 721 exceeds maximum of 720");
  EXPECT_EQ(scene.chain().get_status().branch_refused_for_depth, deep.back().get_hash());

  const std::vector<Block> allowed = make_branch(active.front(), 721, {.message = "allowed"});
  scene.add_all(allowed);
  EXPECT_EQ(scene.chain().get_best_hash(), allowed.back().get_hash());
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
}

TEST(Blockchain, ADamagedBlockHoldsTheSwitchUntilTheNextStartOrIsFetchedAgain) {
  for (const bool is_active : {true, false}) {
    SCOPED_TRACE(is_active);
    ChainScene scene;
    const Block fork = scene.extend();
    const std::vector<Block> active = make_branch(fork, 2, {.message = "active"});
    const std::vector<Block> heavier = make_branch(fork, 3, {.message = "heavier"});
    scene.add_all(active);
    scene.add_all({heavier.begin(), heavier.begin() + 2});
    const Block& damaged = is_active ? active[0] : heavier[1];
    damage_stored_block(scene.directory() / "blk00000.dat", damaged);
    const std::string error = scene.refusal(heavier[2]);
    if (is_active) {
      EXPECT_EQ(error, "Reorg to side chain failed: block " + damaged.get_hash().to_hex() +
                           " of the active chain cannot be read");
      scene.reopen();
      scene.add_all(active);
    } else {
      EXPECT_NE(error.find("cannot be read"), std::string::npos);
      scene.add(damaged);
      scene.add(heavier[2]);
    }
    EXPECT_EQ(scene.chain().get_best_hash(), heavier[2].get_hash());
    EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
  }
}

TEST(Blockchain, AfterADamagedCandidateTheNextHeaviestBranchIsTried) {
  ChainScene scene;
  const std::string path = scene.directory() / "blk00000.dat";
  const Block fork = scene.extend();
  const std::vector<Block> active = make_branch(fork, 2, {.message = "active"});
  const std::vector<Block> damaged = make_branch(fork, 4, {.message = "damaged"});
  const std::vector<Block> whole = make_branch(fork, 3, {.message = "whole"});
  scene.add_all(active);
  scene.add_all({damaged.begin(), damaged.begin() + 2});
  scene.add_all({whole.begin(), whole.begin() + 2});
  // An active block that cannot be read for a while keeps the heavier branch out.
  damage_stored_block(path, active[0]);
  scene.refusal(whole[2]);
  damage_stored_block(path, active[0]);
  ASSERT_EQ(scene.chain().get_best_hash(), active[1].get_hash());
  damage_stored_block(path, damaged[1]);
  std::string error;
  EXPECT_FALSE(scene.chain().add_block(damaged[2], error));
  EXPECT_NE(error.find("cannot be read"), std::string::npos) << error;
  EXPECT_EQ(scene.chain().get_best_hash(), whole[2].get_hash());
}

TEST(Blockchain, AStopEndsWorkWithoutBlame) {
  ChainScene scene;
  const Block next = make_child(scene.tip());
  scene.chain().request_stop();
  std::string error;
  BlockReport report;
  EXPECT_FALSE(scene.chain().add_block(next, error, report));
  EXPECT_EQ(report.fate, BlockFate::INCIDENT);
  scene.reopen();
  scene.add(next);
}

// The steps that add_block() and a start are made of, each called by itself.
TEST(Blockchain, OffersItsStepsOneByOne) {
  ChainScene scene;
  Blockchain& chain = scene.chain();
  const Block fork = scene.extend();
  const Block left = scene.extend({.message = "left"});
  const Bytes on_left = chain.get_snapshot_bytes();
  const Block right = make_child(fork, {.message = "right"});
  std::string error;
  EXPECT_FALSE(chain.attempt_reorg(right.get_hash(), error));
  EXPECT_EQ(error, "candidate tip has a broken ancestry");
  scene.add(right);
  EXPECT_TRUE(chain.attempt_reorg(right.get_hash(), error)) << error;
  EXPECT_EQ(chain.get_snapshot_bytes(), scene.replayed_snapshot());
  EXPECT_FALSE(chain.attempt_reorg(fork.get_hash(), error));
  EXPECT_EQ(error, "candidate tip is on the active chain");
  EXPECT_TRUE(chain.attempt_reorg(left.get_hash(), error)) << error;
  EXPECT_EQ(chain.get_snapshot_bytes(), on_left);

  EXPECT_TRUE(chain.save_state() && chain.save_treasury_state());
  EXPECT_TRUE(chain.load_state() && chain.load_treasury_state());
  chain.rebuild_derived_index_state();
  EXPECT_EQ(chain.get_snapshot_bytes(), on_left);
  EXPECT_EQ(scene.refusal(right), "Block already exists") << "the index knows it";

  Block next = make_child(left);
  EXPECT_TRUE(chain.validate_block_context_free(next, error) && chain.validate_block_transactions(next, error));
  next.transactions[0].outputs[0].value += 1;
  EXPECT_FALSE(chain.validate_block_transactions(next, error));
  EXPECT_TRUE(error.starts_with("Coinbase miner output exceeds block reward")) << error;
  next.transactions.clear();
  EXPECT_FALSE(chain.validate_block_context_free(next, error));
}

TEST(Blockchain, AWriteScopeSavesOnceAtItsEnd) {
  ChainScene scene;
  const auto stored_tip = [&] {
    StateDatabase::Content content;
    StateDatabase(scene.directory().path()).read(content);
    return content.tip.best_height;
  };
  {
    const Blockchain::WriteScope outer(scene.chain());
    {
      const Blockchain::WriteScope inner(scene.chain());
      scene.extend();
    }
    scene.extend();
    EXPECT_EQ(stored_tip(), 0u);
    EXPECT_TRUE(scene.chain().flush_state());
    EXPECT_EQ(stored_tip(), 2u);
    scene.extend();
    EXPECT_EQ(stored_tip(), 2u);
  }
  EXPECT_EQ(stored_tip(), 3u);
}

TEST(Blockchain, OneProcessADirectoryAndADirectoryForItsOwnerOnly) {
  ChainScene scene;
  Blockchain second(scene.directory().path(), small_options());
  std::string error;
  EXPECT_FALSE(second.initialize(error));
  EXPECT_EQ(error, "Data directory " + scene.directory().path() + " is in use by another process");

  Blockchain deeper(scene.directory() / "new", small_options());
  ASSERT_TRUE(deeper.initialize(error)) << error;
  struct stat status;
  ASSERT_EQ(stat((scene.directory() / "new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST(Blockchain, AMissingBlockFileRefusesTheStart) {
  ChainScene scene;
  scene.extend();
  const std::string path = scene.directory() / "blk00000.dat";
  scene.close();
  std::filesystem::rename(path, path + ".away");
  Blockchain chain(scene.directory().path(), small_options());
  std::string error;
  EXPECT_FALSE(chain.initialize(error));
  EXPECT_EQ(error, "Block file " + path + " is missing");
}

TEST(Blockchain, ARebuildThatIsCutShortBeginsAnew) {
  ChainScene scene;
  scene.extend();
  const std::string mark = scene.directory() / kRebuildMarker;
  scene.close();
  ChainOptions options = small_options();
  options.rebuild = true;
  std::string error;
  testing::internal::CaptureStderr();
  {
    Blockchain chain(scene.directory().path(), options);
    chain.request_stop();
    EXPECT_FALSE(chain.initialize(error));
  }
  EXPECT_TRUE(std::filesystem::exists(mark));
  testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  scene.reopen();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Rebuilding the block index"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(mark));
  EXPECT_EQ(scene.chain().get_best_height(), 1u);
}

// A pool below 10,000 base units is due by a distribution without outputs; one whose every share is dust is not
// due at all and runs on; a chain passes both.
TEST(Blockchain, PassesEveryKindOfDistributionHeight) {
  constexpr uint32_t kInterval = 4;
  ChainScene scene(small_options(kInterval));
  // The reward of the tip, which `owner` found, is spent with a fee.
  const auto extend_with_fee = [&](int64_t fee, uint8_t owner, uint8_t miner) {
    const auto coin = output_of(scene.tip().transactions[0]);
    const Transaction spend = pay(sample_key(owner), {coin}, {coin.second.value - fee});
    scene.extend({.txs = {spend}, .fees = fee, .miner = miner});
  };
  scene.extend({.miner = 2});
  extend_with_fee(100, 2, 1);
  scene.extend({.miner = 2});
  EXPECT_TRUE(scene.chain().requires_distribution(4));
  EXPECT_FALSE(scene.chain().build_distribution_tx(4)) << "it has no outputs";
  std::map<OutPoint, TxOut> outputs;
  EXPECT_TRUE(scene.chain().read_template_base({}, outputs).distribution_required);
  scene.extend({.txs = {*scene.chain().required_distribution_tx(4)}, .miner = 1});
  EXPECT_EQ(scene.chain().get_treasury_balance(), 50);

  scene.extend({.miner = 2});
  extend_with_fee(29'900, 2, 2);
  scene.extend({.miner = 2});
  EXPECT_EQ(scene.chain().get_treasury_balance(), 15'000);
  ASSERT_TRUE(scene.chain().requires_distribution(8)) << "one of two miners has a share of 11,250";
  const Transaction due = *scene.chain().build_distribution_tx(8);
  EXPECT_EQ(due.total_output_value(), 15'000);
  scene.extend({.txs = {due}, .miner = 1});
  EXPECT_EQ(scene.chain().get_treasury_balance(), 0);

  extend_with_fee(30'000, 1, 2);
  scene.extend({.miner = 1});
  scene.extend({.miner = 3});
  EXPECT_FALSE(scene.chain().requires_distribution(12)) << "shares of 7,500 and 3,750";
  EXPECT_EQ(scene.refusal(make_child(scene.tip(), {.txs = {due}})).substr(0, 16), "Block contains u");
  scene.extend({.miner = 1});
  EXPECT_EQ(scene.chain().get_treasury_balance(), 15'000) << "runs on";
  scene.reopen();
  EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
}

}  // namespace
}  // namespace norvel
