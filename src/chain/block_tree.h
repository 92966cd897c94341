// All known blocks and the active chain among them: ancestry, forks, expected
// bits, chain work, and which branches are known to be bad.
//
// Invariants:
//   1. The parent of every block but the genesis block is in the tree.
//   2. active() holds the hashes of consecutive heights from 0, all in the tree.
//
// Threads: single-threaded; the chain's lock guards it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "chain/block_index.h"
#include "chain/verdict_log.h"
#include "consensus/retarget.h"
#include "core/block.h"
#include "core/uint256.h"

namespace norvel {

class BlockTree {
 public:
  // ---- Blocks

  // Null when the block is not known. Valid until the block is erased.
  const BlockIndex* find(const uint256& hash) const;
  const BlockIndexMap& all() const { return index_; }

  // The entry of `block`, a child of `parent` (null for the genesis block), with
  // its chain work and file name.
  static BlockIndex make_entry(const Block& block, const BlockIndex* parent);

  // The parent must be in the tree. The child of a bad block is bad.
  void insert(const BlockIndex& entry);

  // Erases a block without children that is not active. Never throws.
  void erase_leaf(const uint256& hash) noexcept;

  // The block and all that descends from it, parents first; empty when it is not
  // known. O(n log n) in the tree.
  std::vector<uint256> with_descendants(const uint256& hash) const;

  // Replaces all entries by those of `index` that descend from a genesis block,
  // with heights that follow their parents', and computes their chain work anew
  // from the bits: stored work has only 64 bits. Returns the others. The active
  // chain is empty after it, the verdicts are forgotten.
  std::vector<uint256> assign(const BlockIndexMap& index);

  // ---- The active chain

  const std::vector<uint256>& active() const { return active_; }
  bool is_active(const uint256& hash) const;
  void push_active(const uint256& hash);
  void pop_active();
  void set_active(std::vector<uint256> hashes);

  // Height of the last active block among `hash` and its ancestors. The block
  // must be in the tree and the active chain not empty.
  uint32_t fork_height(const uint256& hash) const;

  // ---- Branches

  // Hashes above the active chain up to and with `tip`, lowest first; nothing
  // when the tip is unknown or its ancestry leads past the active chain.
  std::optional<std::vector<uint256>> get_chain_path(const uint256& tip) const;

  // All hashes from the genesis block to `tip`, by height.
  std::vector<uint256> path_from_genesis(const uint256& tip) const;

  // The ancestor of `hash` (or itself) at `height`; null above it.
  const BlockIndex* ancestor_at(const uint256& hash, uint32_t height) const;

  // The bits that a child of `parent` must carry, along its own branch. Computed
  // once for each of the parents used last.
  uint32_t expected_child_bits(const uint256& parent,
                               consensus::RetargetReport report = consensus::RetargetReport::PRINT) const;

  // The block with the most work that is not bad and that `allowed` accepts; at
  // equal work an ancestor or descendant of `preferred`, else the lower hash.
  // O(tree). Null for an empty tree.
  const BlockIndex* heaviest(const std::optional<uint256>& preferred,
                             const std::function<bool(const BlockIndex&)>& allowed) const;

  // ---- Bad blocks

  // Marks the block and what descends from it. O(n log n) in the tree.
  void mark_bad(const uint256& hash, const std::shared_ptr<BlockVerdict>& verdict);

  // Marks every block that the log knows as bad, and what descends from it.
  // O(n log n) in the tree.
  void mark_bad(const VerdictLog& verdicts);

  // The verdict on the block or the ancestor that it inherits it from; null for
  // a block not known as bad.
  std::shared_ptr<BlockVerdict> verdict_on(const uint256& hash) const;

 private:
  BlockIndexMap index_;
  std::vector<uint256> active_;
  std::map<uint256, std::shared_ptr<BlockVerdict>> bad_;
  mutable std::map<uint256, uint32_t> child_bits_;    // by parent
  mutable std::map<uint256, uint32_t> fork_heights_;  // of side-chain blocks, until the active chain changes
};

}  // namespace norvel
