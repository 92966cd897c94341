// Indexes of the active chain that follow from its blocks: where a transaction
// stands, which transactions touch an address, which public key an address
// belongs to.
//
// Rules:
//   1. A transaction stands once under each 20-byte public-key hash that its
//      outputs pay or its spent outputs paid, in block order.
//   2. A transaction id that a later block repeats (a coinbase, or what spends
//      the outputs that a repeated one made anew) takes the newer height until
//      that block is undone. It is not listed again: the same bytes pay and
//      spend the same.
//   3. A public key is revealed by an input of an ordinary transaction whose
//      pubkey field is neither empty nor "HTLC"; the first reveal owns the entry.
//
// Threads: single-threaded; the chain's lock guards it.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/block.h"
#include "core/bytes.h"
#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel {

// What one block changed in the indexes. Written as a part of BlockUndo.
struct IndexUndo {
  // Per transaction in block order, the height it had before.
  std::vector<std::pair<uint256, std::optional<uint32_t>>> heights;
  // Under which hash which transaction was added, in block order.
  std::vector<std::pair<Bytes, uint256>> listed;
  // Addresses added.
  std::vector<std::string> revealed;

  bool operator==(const IndexUndo&) const = default;
};

struct IndexPlan {
  IndexUndo undo;
  std::vector<ByteView> keys;  // of undo.revealed, one each; they lie in the block
};

class DerivedIndexes {
 public:
  using HeightMap = std::map<uint256, uint32_t>;
  using AddressMap = std::map<Bytes, std::vector<uint256>>;
  using KeyMap = std::map<std::string, Bytes>;

  // What add_block() is to change for `block`. `spent_hashes` holds the public-key
  // hash that each spent output paid, for all inputs of all transactions in
  // order; empty where there is none. O(block * log state).
  IndexPlan plan(const Block& block, std::span<const Bytes> spent_hashes) const;

  // Adds the block of `height`, given the two parts of its plan. When it throws
  // (std::bad_alloc) remove_block() takes back what was added.
  void add_block(const IndexUndo& undo, const std::vector<ByteView>& keys, uint32_t height);

  // Takes the newest block back, also one that was added only in part.
  void remove_block(const IndexUndo& undo) noexcept;

  const HeightMap& transaction_heights() const { return heights_; }
  const AddressMap& address_transactions() const { return addresses_; }
  const KeyMap& revealed_keys() const { return keys_; }

  void clear();

  // For the reader of a snapshot.
  void assign(HeightMap heights, AddressMap addresses, KeyMap keys);

  bool operator==(const DerivedIndexes&) const = default;

 private:
  HeightMap heights_;
  AddressMap addresses_;
  KeyMap keys_;
};

}  // namespace norvel
