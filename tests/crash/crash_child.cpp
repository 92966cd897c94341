// What the crash loop kills. `crash_child add DIR` opens the chain in DIR and
// offers it a fixed script of blocks: a chain with payments, a snapshot, a side
// branch that wins, the old branch that wins back; it prints the hash of each that
// is accepted. `crash_child check DIR HASH...` opens the chain without help,
// expects these blocks, one of the script's as tip and the state that a fresh
// replay of its chain has, then offers the whole script and expects its end. Exit
// status 0 when all held.

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>

#include "chain/chain_scene.h"
#include "consensus/distribution.h"

namespace norvel {
namespace {

constexpr size_t kSnapshotAfter = 6;
constexpr uint32_t kInterval = 4;  // of distributions

// In the order in which they are offered; the last one is the tip in the end.
std::vector<Block> make_script() {
  std::vector<Block> script = make_branch(make_genesis_block(), 4, {.message = "main"});
  const auto spend = [&script](size_t i) {
    const auto coin = output_of(script[i].transactions[0]);
    return pay(sample_key(1), {coin}, {coin.second.value - 20'000}, 2);
  };
  script.push_back(make_child(script[3], {.txs = {spend(0)}, .fees = 20'000, .message = "main"}));
  const Block fork = script[3];
  const auto extend = [&script](const std::vector<Block>& branch) {
    script.insert(script.end(), branch.begin(), branch.end());
  };
  extend(make_branch(script.back(), 2, {.message = "main"}));
  const Block main_tip = script.back();
  Block side = make_child(fork, {.txs = {spend(1)}, .fees = 20'000, .miner = 3, .message = "side"});
  script.push_back(side);
  extend(make_branch(side, 3, {.miner = 3, .message = "side"}));
  // The fee of height 5 has gone to the treasury and is due to the one miner of the main branch.
  Transaction distribution = treasury::create_distribution_tx(10'000, {{sample_key(1).address, 7}}, 8);
  distribution.timestamp = kGenesisTimestamp;
  script.push_back(make_child(main_tip, {.txs = {distribution}, .message = "main"}));
  extend(make_branch(script.back(), 2, {.message = "main"}));
  return script;
}

// Refusals are expected: a faulty disk, blocks that are there already.
void offer(Blockchain& chain, const std::vector<Block>& script) {
  std::string error;
  for (size_t i = 0; i < script.size(); ++i) {
    if (chain.add_block(script[i], error)) {
      std::cout << script[i].get_hash().to_hex() << std::endl;
    }
    if (i == kSnapshotAfter) {
      chain.save_snapshot();
    }
  }
}

bool has_failed() {
  return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
}

void run(const std::string& directory, bool checks, const std::vector<std::string>& accepted) {
  const std::vector<Block> script = make_script();
  ChainScene scene(small_options(kInterval), nullptr, directory);
  if (has_failed()) {
    return;
  }
  Blockchain& chain = scene.chain();
  if (checks) {
    const auto is_tip = [&](const Block& block) { return block.get_hash() == chain.get_best_hash(); };
    EXPECT_TRUE(is_tip(make_genesis_block()) || std::ranges::any_of(script, is_tip));
    EXPECT_EQ(chain.get_snapshot_bytes(), scene.replayed_snapshot());
    for (const std::string& hash : accepted) {
      EXPECT_TRUE(chain.load_block_from_disk(uint256(hash))) << hash << " was accepted and is lost";
    }
  }
  offer(chain, script);
  if (checks) {
    EXPECT_EQ(chain.get_best_hash(), script.back().get_hash()) << "height " << chain.get_best_height();
    EXPECT_EQ(chain.get_snapshot_bytes(), scene.replayed_snapshot());
  }
}

}  // namespace
}  // namespace norvel

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: crash_child add|check DIR [HASH...]\n";
    return 2;
  }
  norvel::run(argv[2], std::string(argv[1]) == "check", {argv + 3, argv + argc});
  return norvel::has_failed() ? 1 : 0;
}
