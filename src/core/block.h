// Blocks: a header, a height and transactions, their byte format, the rules
// that a block can be checked against with a UTXO set alone, and the factories.
//
// Cache: get_hash() keeps its result. Whoever changes the header after that
// call also calls invalidate_cache(); update_merkle_root() does so itself.
//
// Errors: deserialize throws std::runtime_error; validators return false.
// Threads: a plain value; get_hash() writes a cache and the transactions hold
// caches of their own, so a const Block must not be shared while they are empty.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/block_header.h"
#include "core/bytes.h"
#include "core/transaction.h"
#include "core/transaction_verification.h"
#include "core/uint256.h"

namespace norvel {

class UTXOSet;

inline constexpr int64_t kInitialSubsidy = 8 * kCoin;
inline constexpr uint32_t kHalvingInterval = 1'260'000;

// What a coinbase may pay out beyond the subsidy.
inline constexpr int64_t kCoinbaseFeesMax = 100 * kCoin;

inline constexpr size_t kBlockBytesMax = 1'000'000;

// How far a header's clock may run ahead of ours.
inline constexpr uint64_t kFutureTimeMaxSeconds = 7'200;

// A block's future time counts when it first arrives, not when it is replayed.
enum class ClockRule { APPLY, SKIP };

// 2024-01-01 00:00:00 UTC, for the genesis block and its coinbase.
inline constexpr uint64_t kGenesisTimestamp = 1'704'067'200;

inline constexpr uint32_t kGenesisBits = 0x207fffff;

// New coins of the block at `height`, in base units: 8 coins, halved every
// 1,260,000 blocks.
int64_t block_subsidy(uint32_t height);

// Most coins, in base units, that may exist once the block at `height` is part
// of the chain.
int64_t supply_limit(uint32_t height);

// What a coinbase at `height` pays its miner and counts as fees, in base units,
// so that the supply stays within its limit: the reward gives way first.
struct CoinbaseShares {
  int64_t reward = 0;
  int64_t fees = 0;
};
CoinbaseShares coinbase_shares(uint32_t height, int64_t fees, int64_t current_supply);

//   header          84
//   height           4  little-endian
//   count N          4  little-endian
//   N times:
//     length L       4  little-endian
//     transaction    L
class Block {
 public:
  BlockHeader header;
  std::vector<Transaction> transactions;  // the coinbase first
  uint32_t height = 0;

  Bytes serialize() const;

  // Bytes after the last transaction, and after a transaction within its
  // length, are ignored.
  static Block deserialize(ByteView data);

  // Length of serialize().
  size_t size() const;

  // The header's hash, cached.
  uint256 get_hash() const;

  // Forgets the cached hash; for callers that changed the header.
  void invalidate_cache() { cached_hash_.reset(); }

  uint256 calculate_merkle_root() const;
  void update_merkle_root();
  bool check_merkle_root() const { return calculate_merkle_root() == header.merkle_root; }

  // The first transaction is a coinbase of the right shape, pays at most the
  // subsidy and 100 coins, and is the only one.
  bool has_valid_coinbase() const;

  // Checks the block against its own rules and the outputs it spends from
  // `utxos`; on failure `error` holds the reason, on success it is left alone.
  // A transaction that does not verify is also named on standard error.
  bool is_valid(std::string& error, const UTXOSet& utxos) const;

  // The two halves of is_valid(), with its messages and, within each half, in
  // its order: the rules that need no outputs, and those about inputs, decided
  // by `verify`.
  bool has_valid_form(std::string& error, ClockRule clock) const;
  bool has_valid_inputs(std::string& error, const UTXOSet& utxos, const InputVerifier& verify) const;

  // Sum of inputs minus outputs over all transactions but coinbases and
  // treasury distributions; an input that is found nowhere counts 0. Wraps
  // modulo 2^64.
  int64_t calculate_total_fees(const UTXOSet& utxos) const;

  // A block for the height after `prev_hash`, stamped with the clock, nonce 0,
  // whose coinbase pays `miner_address` within the supply limit. Throws
  // std::runtime_error for an address that does not decode.
  static Block create_new_block(const std::vector<Transaction>& txs, const uint256& prev_hash, uint32_t height,
                                const std::string& miner_address, uint32_t bits, const UTXOSet& utxos,
                                int64_t current_supply);

  // The block at height 0 with nonce 0; the caller searches the nonce.
  static Block create_genesis_block(const std::string& coinbase_message, const std::string& address,
                                    uint64_t timestamp);

 private:
  // What is_valid() checks before and after the inputs.
  bool has_valid_head(std::string& error, ClockRule clock) const;
  bool has_valid_frame(std::string& error) const;

  mutable std::optional<uint256> cached_hash_;
};

}  // namespace norvel
