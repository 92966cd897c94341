// A Blockchain in a directory of its own, for tests that offer it blocks. The
// genesis block is there; everything else is mined by the test.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "chain/blockchain.h"
#include "chain/genesis.h"
#include "support/chain_builder.h"

namespace norvel {

// A small cache of verified inputs, so that opening a chain is cheap.
ChainOptions small_options(uint32_t distribution_interval = TreasuryState().distribution_interval);

class ChainScene {
 public:
  // In `directory`, which stays; without one in a directory of its own.
  explicit ChainScene(ChainOptions options = small_options(), PoolSink* sink = nullptr, std::string directory = "");

  Blockchain& chain() { return *chain_; }
  const TemporaryDirectory& directory() const { return *directory_; }  // its own

  // Ends the chain and opens it again on the same directory.
  void reopen();
  void close() { chain_.reset(); }

  // Expects that the block is accepted.
  void add(const Block& block);
  void add_all(const std::vector<Block>& blocks);

  // Adds a child of the tip and returns it.
  Block extend(const ChildOptions& options = {});

  // Expects a refusal that leaves the state as it was, and returns its text.
  std::string refusal(const Block& block);

  // The active block at `height`, the tip without one.
  Block block_at(uint32_t height);
  Block tip() { return block_at(chain_->get_best_height()); }

  // The snapshot of a chain that was given only the active blocks, in order.
  Bytes replayed_snapshot();

 private:
  std::optional<TemporaryDirectory> directory_;
  ChainOptions options_;
  PoolSink* sink_;
  std::string path_;
  std::unique_ptr<Blockchain> chain_;
};

}  // namespace norvel
