// What the crash loop kills. `crash_child add DIR` opens the chain in DIR and
// offers it a fixed script of blocks: a chain with payments, a snapshot, a side
// branch that wins, the old branch that wins back. `crash_child check DIR` opens
// the chain without help, expects one of the script's blocks as tip and the
// state that a fresh replay of its chain has, then offers the whole script and
// expects its end. Exit status 0 when all held.

#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>

#include "chain/blockchain.h"
#include "chain/genesis.h"
#include "consensus/distribution.h"
#include "support/chain_builder.h"

namespace norvel {
namespace {

constexpr size_t kSnapshotAfter = 6;

// In the order in which they are offered; the last one is the tip in the end.
std::vector<Block> make_script() {
  std::vector<Block> script = make_branch(make_genesis_block(), 4, {.message = "main"});
  const auto spend = [&script](size_t i) {
    const auto coin = output_of(script[i].transactions[0]);
    return pay(sample_key(1), {coin}, {coin.second.value - 20'000}, 2);
  };
  script.push_back(make_child(script[3], {.txs = {spend(0)}, .fees = 20'000, .message = "main"}));
  const Block fork = script[3];
  for (const Block& block : make_branch(script.back(), 2, {.message = "main"})) {
    script.push_back(block);
  }
  const Block main_tip = script.back();
  Block side = make_child(fork, {.txs = {spend(1)}, .fees = 20'000, .miner = 3, .message = "side"});
  script.push_back(side);
  for (const Block& block : make_branch(side, 3, {.miner = 3, .message = "side"})) {
    script.push_back(block);
  }
  // The fee of height 5 has gone to the treasury and is due to the one miner of the main branch.
  Transaction distribution = treasury::create_distribution_tx(10'000, {{sample_key(1).address, 7}}, 8);
  distribution.timestamp = kGenesisTimestamp;
  script.push_back(make_child(main_tip, {.txs = {distribution}, .message = "main"}));
  for (const Block& block : make_branch(script.back(), 2, {.message = "main"})) {
    script.push_back(block);
  }
  return script;
}

ChainOptions options() {
  ChainOptions options;
  options.distribution_interval = 4;
  options.verified_input_count = 1'024;
  return options;
}

bool fail(const std::string& reason) {
  std::cerr << "crash_child: " << reason << "\n";
  return false;
}

// Refusals are expected: a faulty disk, blocks that are there already.
void offer(Blockchain& chain, const std::vector<Block>& script) {
  std::string error;
  for (size_t i = 0; i < script.size(); ++i) {
    chain.add_block(script[i], error);
    if (i == kSnapshotAfter) {
      chain.save_snapshot();
    }
  }
}

bool add(const std::string& directory, const std::vector<Block>& script) {
  Blockchain chain(directory, options());
  std::string error;
  if (!chain.initialize(error)) {
    return fail("not started: " + error);
  }
  offer(chain, script);
  return true;
}

bool check_replay(Blockchain& chain) {
  const TemporaryDirectory other;
  Blockchain replay(other.path(), options());
  std::string error;
  if (!replay.initialize(error)) {
    return fail("replay not started: " + error);
  }
  const Blockchain::WriteScope scope(replay);
  for (uint32_t height = 1; height <= chain.get_best_height(); ++height) {
    const auto block = chain.load_block_from_disk(*chain.get_block_hash(height));
    if (!block || !replay.add_block(*block, error)) {
      return fail("block " + std::to_string(height) + " of the chain that came back: " + error);
    }
  }
  return replay.get_snapshot_bytes() == chain.get_snapshot_bytes() || fail("state differs from a replay");
}

bool check(const std::string& directory, const std::vector<Block>& script) {
  Blockchain chain(directory, options());
  std::string error;
  if (!chain.initialize(error)) {
    return fail("not started: " + error);
  }
  std::set<uint256> known = {make_genesis_block().get_hash()};
  for (const Block& block : script) {
    known.insert(block.get_hash());
  }
  if (!known.contains(chain.get_best_hash())) {
    return fail("unknown tip " + chain.get_best_hash().to_hex());
  }
  if (!check_replay(chain)) {
    return false;
  }
  offer(chain, script);
  if (chain.get_best_hash() != script.back().get_hash()) {
    return fail("the chain did not reach its end, but height " + std::to_string(chain.get_best_height()));
  }
  return check_replay(chain);
}

}  // namespace
}  // namespace norvel

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: crash_child add|check DIR\n";
    return 2;
  }
  const std::vector<norvel::Block> script = norvel::make_script();
  const bool good = std::strcmp(argv[1], "add") == 0 ? norvel::add(argv[2], script) : norvel::check(argv[2], script);
  return good ? 0 : 1;
}
