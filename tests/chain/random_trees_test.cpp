// Trees of valid and invalid blocks, delivered in random orders with restarts in
// between: every node ends on the heaviest valid branch, with the state that its
// blocks alone give. Distributions fall due on all branches.
//
// NORVEL_SEED repeats one tree.

#include <cstdlib>
#include <random>

#include "chain/chain_scene.h"
#include "consensus/distribution.h"
#include "consensus/treasury_accounting.h"

namespace norvel {
namespace {

#ifdef NORVEL_SANITIZED
constexpr size_t kTrees = 5;
#else
constexpr size_t kTrees = 50;
#endif
constexpr size_t kOrdersPerTree = 20;
constexpr size_t kBlocksPerTree = 24;
constexpr uint32_t kInterval = 4;
constexpr int64_t kFee = 30'000;

struct TreeBlock {
  Block block;
  bool valid = true;  // with all its ancestors
};

class Tree {
 public:
  explicit Tree(uint64_t seed) : random_(seed) {
    blocks_.push_back({make_genesis_block(), true});
    while (blocks_.size() < kBlocksPerTree) {
      // Mostly near the top, so that branches grow long and overtake each other.
      const size_t back = std::min<size_t>(blocks_.size() - 1, random_() % 5);
      grow(blocks_.size() - 1 - back);
    }
  }

  const std::vector<TreeBlock>& blocks() const { return blocks_; }

  // The only valid block of the greatest height; null when there are several.
  const Block* winner() const {
    const Block* best = nullptr;
    bool unique = false;
    for (const TreeBlock& node : blocks_) {
      if (node.valid && (best == nullptr || node.block.height >= best->height)) {
        unique = best == nullptr || node.block.height > best->height;
        best = &node.block;
      }
    }
    return unique ? best : nullptr;
  }

  // The state after `tip` by connecting its ancestors, without any rule.
  void replay(const Block& tip, ChainState& state) const {
    if (tip.height > 0) {
      for (const TreeBlock& node : blocks_) {
        if (node.block.get_hash() == tip.header.prev_hash) {
          replay(node.block, state);
        }
      }
    }
    state.connect(tip, tip.get_hash());
  }

 private:
  void grow(size_t parent_index) {
    const TreeBlock parent = blocks_[parent_index];
    ChainState state(kInterval);
    replay(parent.block, state);
    ChildOptions options;
    options.miner = static_cast<uint8_t>(1 + random_() % 3);
    options.message = std::to_string(blocks_.size());
    const TreasuryState& treasury = state.treasury();
    const uint32_t height = parent.block.height + 1;
    if (treasury::is_distribution_height(height, kInterval) && treasury.distribution_pending) {
      options.txs.push_back(
          treasury::create_distribution_tx(treasury.distribution_pool, treasury.pending_miner_counts, height));
    }
    if (random_() % 2 == 0) {
      add_payment(state, options);
    }
    Block block = make_child(parent.block, options);
    const bool spoilt = random_() % 8 == 0 && spoil(block);
    blocks_.push_back({std::move(block), parent.valid && !spoilt});
  }

  // A coin of one of the miners goes on to itself, less a fee.
  void add_payment(const ChainState& state, ChildOptions& options) {
    const auto owner = static_cast<uint8_t>(1 + random_() % 3);
    const SampleKey key = sample_key(owner);
    const auto coins = state.utxos().get_utxos_for_address(key.pubkey_hash);
    if (coins.empty()) {
      return;
    }
    const auto& coin = coins[random_() % coins.size()];
    if (coin.second.value > 2 * kFee) {
      options.txs.push_back(pay(key, {coin}, {coin.second.value / 2, coin.second.value / 2 - kFee}, owner));
      options.fees = kFee + coin.second.value % 2;
    }
  }

  // Breaks a rule that only shows when the block is connected.
  bool spoil(Block& block) {
    Transaction& last = block.transactions.back();
    switch (random_() % 3) {
      case 0:
        block.transactions[0].outputs[0].value += 1;
        break;
      case 1:
        block.transactions.push_back(pay(sample_key(1), {{{uint256(random_()), 0}, TxOut(1, {})}}, {1}));
        break;
      default:
        if (last.type != TransactionType::TRANSFER) {
          return false;
        }
        last.inputs[0].signature[10] ^= 1;
        break;
    }
    seal(block);
    return true;
  }

  std::mt19937_64 random_;
  std::vector<TreeBlock> blocks_;
};

// Offers all blocks in a random order, with restarts (which forget orphans), then
// once more with parents first, as a peer that is asked for them sends them.
void deliver(const Tree& tree, ChainScene& scene, std::mt19937_64& random) {
  std::vector<const Block*> order;
  for (const TreeBlock& node : tree.blocks()) {
    order.push_back(&node.block);
  }
  std::shuffle(order.begin(), order.end(), random);
  std::string error;
  for (size_t at = 0; at < order.size(); scene.reopen()) {
    const size_t end = std::min(order.size(), at + 1 + random() % (2 * order.size()));
    const Blockchain::WriteScope scope(scene.chain());
    for (; at < end; ++at) {
      scene.chain().add_block(*order[at], error);
    }
  }
  for (const TreeBlock& node : tree.blocks()) {
    scene.chain().add_block(node.block, error);
  }
}

TEST(RandomTrees, EveryOrderEndsInTheSameState) {
  const char* chosen = std::getenv("NORVEL_SEED");
  const uint64_t first = chosen != nullptr ? std::strtoull(chosen, nullptr, 10) : std::random_device()();
  // Some trees have no winner; a fifth of all orders at least is compared with one.
  constexpr size_t kComparedMin = kTrees * kOrdersPerTree / 5;
  const uint64_t count = chosen != nullptr ? 1 : kTrees;
  size_t compared = 0;
  for (uint64_t seed = first; seed < first + count || (chosen == nullptr && compared <= kComparedMin); ++seed) {
    SCOPED_TRACE("NORVEL_SEED=" + std::to_string(seed));
    const Tree tree(seed);
    const Block* winner = tree.winner();
    std::mt19937_64 random(seed);
    for (size_t i = 0; i < kOrdersPerTree; ++i) {
      ChainScene scene(small_options(kInterval));
      deliver(tree, scene, random);
      const Bytes state = scene.chain().get_snapshot_bytes();
      if (winner != nullptr) {
        ASSERT_EQ(scene.chain().get_best_hash(), winner->get_hash()) << "order " << i;
        ++compared;
      }
      ChainState direct(kInterval);
      tree.replay(scene.tip(), direct);
      ASSERT_EQ(state, direct.to_snapshot()) << "order " << i;
    }
  }
}

}  // namespace
}  // namespace norvel
