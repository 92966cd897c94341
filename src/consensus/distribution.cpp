#include "consensus/distribution.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "core/clock.h"
#include "core/console.h"
#include "core/transaction_parts.h"
#include "crypto/address.h"

namespace norvel::treasury {

namespace {

// Holds count times amount, and the sum of any outputs that fit into memory.
__extension__ using Wide = __int128;

constexpr int64_t kShareTolerance = 1;

// kPayeesMax P2PKH outputs of 35 bytes, the one input and the frame around them
// leave a block room for its coinbase and other transactions.
static_assert(kPayeesMax * 35 < 750'000 && kPayeesMax <= 0xffff);

// `value` is not negative.
std::string to_decimal(Wide value) {
  std::string digits;
  do {
    digits.push_back(static_cast<char>('0' + static_cast<int>(value % 10)));
    value /= 10;
  } while (value != 0);
  std::reverse(digits.begin(), digits.end());
  return digits;
}

// Keeps the `count` largest outputs, among equals the first, in their order.
void keep_largest(std::vector<TxOut>& outputs, size_t count) {
  if (outputs.size() <= count) {
    return;
  }
  std::vector<int64_t> values;
  values.reserve(outputs.size());
  for (const TxOut& output : outputs) {
    values.push_back(output.value);
  }
  const auto smallest = values.begin() + static_cast<std::ptrdiff_t>(count - 1);
  std::nth_element(values.begin(), smallest, values.end(), std::greater<>());
  const int64_t threshold = *smallest;
  auto equals_left = std::count(values.begin(), smallest + 1, threshold);
  std::vector<TxOut> kept;
  kept.reserve(count);
  for (TxOut& output : outputs) {
    if (output.value > threshold || (output.value == threshold && equals_left-- > 0)) {
      kept.push_back(std::move(output));
    }
  }
  outputs = std::move(kept);
}

// calculate_distribution() by public-key hash, without addresses that do not
// decode.
std::map<Bytes, int64_t> shares_by_hash(int64_t amount, const MinerBlockCounts& miner_counts) {
  std::map<Bytes, int64_t> shares;
  for (const auto& [address, share] : calculate_distribution(amount, miner_counts)) {
    try {
      shares[crypto::address_to_hash160(address)] = share;
    } catch (const std::runtime_error&) {
      continue;
    }
  }
  return shares;
}

bool check_form(const Transaction& tx, uint32_t height, std::string& error) {
  if (tx.type != TransactionType::TREASURY_DISTRIBUTION) {
    error = "Distribution tx has wrong type";
    return false;
  }
  if (tx.inputs.size() != 1) {
    error = "Distribution tx must have exactly one input";
    return false;
  }
  const TxIn& input = tx.inputs.front();
  if (input.prevout != OutPoint{uint256(), kDistributionIndex}) {
    error = "Distribution tx input has invalid prevout";
    return false;
  }
  if (input.signature.size() < sizeof(height)) {
    error = "Distribution tx signature too short";
    return false;
  }
  size_t offset = 0;
  const auto found = read_le<uint32_t>(input.signature, offset);
  if (found != height) {
    error = "Distribution tx encodes wrong height (" + std::to_string(found) + " vs expected " + std::to_string(height);
    return false;
  }
  return true;
}

bool check_outputs(const std::vector<TxOut>& outputs, const std::map<Bytes, int64_t>& shares, std::string& error) {
  for (const TxOut& output : outputs) {
    const auto payee = shares.find(output.get_pubkey_hash());
    if (payee == shares.end()) {
      error = "Distribution tx contains unexpected output address";
      return false;
    }
    const Wide excess = Wide{output.value} - payee->second;
    if (excess < -kShareTolerance || excess > kShareTolerance) {
      error = "Distribution tx output amount mismatch (expected " + std::to_string(payee->second) + ", got " +
              std::to_string(output.value);
      return false;
    }
  }
  return true;
}

}  // namespace

std::map<std::string, int64_t> calculate_distribution(int64_t amount, const MinerBlockCounts& miner_counts) {
  std::map<std::string, int64_t> shares;
  const auto total = std::accumulate(miner_counts.begin(), miner_counts.end(), uint64_t{0},
                                     [](uint64_t sum, const auto& miner) { return sum + miner.second; });
  if (amount < 1 || total == 0) {
    return shares;
  }
  int64_t remainder = amount;
  int64_t* top_share = nullptr;
  uint32_t top_count = 0;
  for (const auto& [address, count] : miner_counts) {
    const auto share = static_cast<int64_t>(Wide{count} * amount / Wide{total});
    if (share < kShareUnitsMin) {
      continue;
    }
    remainder -= share;
    const auto payee = shares.emplace_hint(shares.end(), address, share);
    if (count > top_count) {
      top_count = count;
      top_share = &payee->second;
    }
  }
  if (top_share != nullptr) {
    *top_share += remainder;
  }
  return shares;
}

Transaction create_distribution_tx(int64_t amount, const MinerBlockCounts& miner_counts, uint32_t height) {
  Transaction tx;
  tx.type = TransactionType::TREASURY_DISTRIBUTION;
  tx.timestamp = unix_time_seconds();

  TxIn input;
  input.prevout.index = kDistributionIndex;
  append_le(input.signature, height);
  tx.inputs.push_back(std::move(input));

  for (const auto& [address, share] : calculate_distribution(amount, miner_counts)) {
    try {
      tx.outputs.push_back(make_p2pkh_output(share, crypto::address_to_hash160(address)));
    } catch (const std::exception& failure) {
      console::error_line("[Treasury] Skipping invalid miner address '" + address + "': " + failure.what());
    }
  }
  keep_largest(tx.outputs, kPayeesMax);
  return tx;
}

bool validate_distribution_tx(const Transaction& tx, int64_t amount, const MinerBlockCounts& miner_counts,
                              uint32_t height, std::string& error) {
  if (!check_form(tx, height, error) || !check_outputs(tx.outputs, shares_by_hash(amount, miner_counts), error)) {
    return false;
  }
  // Exact: repeated outputs are bounded by this sum alone.
  const Wide sum = std::accumulate(tx.outputs.begin(), tx.outputs.end(), Wide{0},
                                   [](Wide before, const TxOut& output) { return before + output.value; });
  if (sum > amount) {
    error =
        "Distribution tx total outputs exceed treasury balance (" + to_decimal(sum) + " > " + std::to_string(amount);
    return false;
  }
  if (tx.outputs.empty() && amount >= kShareUnitsMin && !miner_counts.empty()) {
    error = "Distribution tx has no outputs but treasury has distributable balance";
    return false;
  }
  return true;
}

}  // namespace norvel::treasury
