#include "core/block.h"

#include <algorithm>
#include <limits>
#include <map>
#include <span>

#include "chain/utxo_set.h"
#include "core/clock.h"
#include "core/merkle.h"

namespace norvel {

namespace {

constexpr int64_t kSupplyMax = 3'141'592'653 * kCoin;
constexpr int64_t kHalfSupply = 157'079'632'650'000'000;
constexpr uint32_t kSupplyPeriod = 52'560;
constexpr uint32_t kShiftMax = 64;  // a wider shift of a 64-bit amount is undefined and would leave nothing
static_assert(kSupplyMax == 314'159'265'300'000'000);

// A length prefix and the least bytes of a transaction.
constexpr size_t kTransactionSizeMin = 4 + 1 + 4 + 8 + 2 + 2 + 4;

int64_t saturating_add(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) {
    return a < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return sum;
}

int64_t saturating_subtract(int64_t a, int64_t b) {
  int64_t difference = 0;
  if (__builtin_sub_overflow(a, b, &difference)) {
    return a < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return difference;
}

// Inputs minus outputs of `txs`, each input valued from an output of an earlier
// one of them or from `utxos`; modulo 2^64.
int64_t sum_fees(std::span<const Transaction> txs, const UTXOSet& utxos) {
  std::map<OutPoint, int64_t> made;
  uint64_t fees = 0;
  for (const Transaction& tx : txs) {
    if (tx.type != TransactionType::COINBASE && tx.type != TransactionType::TREASURY_DISTRIBUTION) {
      for (const TxIn& input : tx.inputs) {
        if (const auto node = made.extract(input.prevout)) {
          fees += static_cast<uint64_t>(node.mapped());
        } else if (const auto output = utxos.get_utxo(input.prevout)) {
          fees += static_cast<uint64_t>(output->value);
        }
      }
      fees -= static_cast<uint64_t>(tx.total_output_value());
    }
    for (size_t i = 0; i < tx.outputs.size(); ++i) {
      made[{tx.get_txid(), static_cast<uint32_t>(i)}] = tx.outputs[i].value;
    }
  }
  return static_cast<int64_t>(fees);
}

}  // namespace

int64_t block_subsidy(uint32_t height) {
  const uint32_t halvings = height / kHalvingInterval;
  return halvings < kShiftMax ? kInitialSubsidy >> halvings : 0;
}

int64_t supply_limit(uint32_t height) {
  if (height == 0) {
    return kHalfSupply;
  }
  const uint32_t periods = height / kSupplyPeriod;
  return periods < kShiftMax ? kSupplyMax - (kHalfSupply >> periods) : kSupplyMax;
}

CoinbaseShares coinbase_shares(uint32_t height, int64_t fees, int64_t current_supply) {
  const int64_t reward = block_subsidy(height);
  const int64_t limit = supply_limit(height);
  if (saturating_add(saturating_add(fees, current_supply), reward) <= limit) {
    return {reward, fees};
  }
  const int64_t allowed = std::max<int64_t>(saturating_subtract(limit, current_supply), 0);
  return {allowed < fees ? 0 : saturating_subtract(allowed, fees), std::min(fees, allowed)};
}

Bytes Block::serialize() const {
  Bytes out = header.serialize();
  append_le(out, height);
  append_le(out, static_cast<uint32_t>(transactions.size()));
  for (const Transaction& tx : transactions) {
    const Bytes bytes = tx.serialize();
    append_le(out, static_cast<uint32_t>(bytes.size()));
    append(out, bytes);
  }
  return out;
}

Block Block::deserialize(ByteView data) {
  size_t at = 0;
  Block block;
  block.header = BlockHeader::deserialize(data, at);
  block.height = read_le<uint32_t>(data, at);
  const auto count = read_le<uint32_t>(data, at);
  block.transactions.reserve(std::min<size_t>(count, (data.size() - at) / kTransactionSizeMin));
  for (uint32_t i = 0; i < count; ++i) {
    const auto len = read_le<uint32_t>(data, at);
    block.transactions.push_back(Transaction::deserialize(take(data, at, len)));
  }
  return block;
}

size_t Block::size() const {
  size_t size = BlockHeader::kSize + 4 + 4;
  for (const Transaction& tx : transactions) {
    size += 4 + tx.size();
  }
  return size;
}

uint256 Block::get_hash() const {
  if (!cached_hash_) {
    cached_hash_ = header.get_hash();
  }
  return *cached_hash_;
}

uint256 Block::calculate_merkle_root() const {
  std::vector<uint256> txids;
  txids.reserve(transactions.size());
  for (const Transaction& tx : transactions) {
    txids.push_back(tx.get_txid());
  }
  return merkle::compute_merkle_root(txids);
}

void Block::update_merkle_root() {
  header.merkle_root = calculate_merkle_root();
  invalidate_cache();
}

int64_t Block::calculate_total_fees(const UTXOSet& utxos) const {
  return sum_fees(transactions, utxos);
}

Block Block::create_new_block(const std::vector<Transaction>& txs, const uint256& prev_hash, uint32_t height,
                              const std::string& miner_address, uint32_t bits, const UTXOSet& utxos,
                              int64_t current_supply) {
  Block block;
  block.header.prev_hash = prev_hash;
  block.header.bits = bits;
  block.header.timestamp = unix_time_seconds();
  block.height = height;

  const CoinbaseShares shares = coinbase_shares(height, sum_fees(txs, utxos), current_supply);
  block.transactions.reserve(txs.size() + 1);
  block.transactions.push_back(
      Transaction::create_coinbase_tx(miner_address, shares.reward, shares.fees, height, "Mined by Norvel Network"));
  block.transactions.insert(block.transactions.end(), txs.begin(), txs.end());
  block.update_merkle_root();
  return block;
}

Block Block::create_genesis_block(const std::string& coinbase_message, const std::string& address, uint64_t timestamp) {
  Block block;
  block.header.timestamp = timestamp;
  block.header.bits = kGenesisBits;
  block.transactions.push_back(Transaction::create_coinbase_tx(address, kInitialSubsidy, 0, 0, coinbase_message));
  block.update_merkle_root();
  return block;
}

}  // namespace norvel
