// Mines valid blocks for the state tests, without a Blockchain: children of any
// block, ten seconds apart, so that the easiest bits hold throughout. Programs
// that use it link the library with the easier target.

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/block.h"
#include "core/transaction.h"
#include "support/ledger_samples.h"

namespace norvel {

// What a child differs in from an empty block of its parent.
struct ChildOptions {
  std::vector<Transaction> txs = {};  // after the coinbase
  int64_t fees = 0;                   // as the coinbase shares them with the treasury
  uint8_t miner = 1;                  // sample_key() that is paid
  std::string message = "";           // in the coinbase; tells siblings apart
};

// The child, mined.
Block make_child(const Block& parent, const ChildOptions& options = {});

// `count` children in a row; the parent is not among them.
std::vector<Block> make_branch(const Block& parent, size_t count, const ChildOptions& options = {});

// Searches a nonce for the header as it is, after a test changed the block.
void mine(Block& block);

// As mine(), and computes the Merkle root first.
void seal(Block& block);

// The first output of `tx` that pays `key`, as an input for pay().
std::pair<OutPoint, TxOut> output_of(const Transaction& tx, size_t output_index = 0);

// A signed payment that spends `inputs`, which all pay `from`, into outputs of
// these values to sample_key(to).
Transaction pay(const SampleKey& from, const std::vector<std::pair<OutPoint, TxOut>>& inputs,
                const std::vector<int64_t>& values, uint8_t to = 2);

// A directory of its own, removed with all that is in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace norvel
