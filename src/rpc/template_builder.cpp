#include "rpc/template_builder.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <vector>

#include "consensus/distribution.h"
#include "consensus/treasury.h"
#include "core/clock.h"
#include "crypto/hex.h"
#include "rpc/template_selection.h"

namespace norvel::rpc {

namespace {

constexpr uint32_t kBlockVersion = 1;

constexpr const char kNoBestBlock[] = "No best block found";

// A distribution: its output to one payee, and all else.
constexpr size_t kPayeeBytes = 35;
constexpr size_t kDistributionFrameBytes = 100;
static_assert(kLengthBytes + kDistributionFrameBytes + treasury::kPayeesMax * kPayeeBytes <= kTemplateBytesMax);

// What a transaction may be locked to, exclusively, to be offered at `unix_seconds`.
uint64_t locked_time_at(uint64_t unix_seconds) {
  return unix_seconds > kMinerClockLagMaxS ? unix_seconds - kMinerClockLagMaxS : 0;
}

TemplateLimits limits_for(const TemplateBase& base, uint64_t unix_seconds) {
  TemplateLimits limits;
  limits.height = base.next_height;
  limits.locked_time = locked_time_at(unix_seconds);
  if (base.distribution) {
    limits.bytes -= size_in_block(*base.distribution);
  }
  return limits;
}

JsonValue describe(const Transaction& tx, const std::string& data) {
  JsonValue entry;
  entry.set("txid", tx.get_txid().to_hex());
  entry.set("data", data);
  if (tx.type == TransactionType::TREASURY_DISTRIBUTION) {
    entry.set("type", "treasury_distribution");
  }
  return entry;
}

// Without the time and the address.
JsonValue to_json(const BlockTemplate& offered) {
  std::vector<JsonValue> transactions;
  std::vector<JsonValue> data;
  transactions.reserve(offered.transactions.size());
  data.reserve(offered.transactions.size());
  for (const Transaction& tx : offered.transactions) {
    std::string hex = crypto::bytes_to_hex(tx.serialize());
    transactions.push_back(describe(tx, hex));
    data.emplace_back(std::move(hex));
  }
  JsonValue result;
  result.set("version", offered.version);
  result.set("previousblockhash", offered.previous_block_hash.to_hex());
  result.set("height", offered.height);
  result.set("bits", offered.bits);
  result.set("prevblocktime", offered.previous_block_time);
  result.set("transactions", std::move(transactions));
  result.set("miner_reward", offered.miner_reward);
  result.set("total_fees", offered.total_fees);
  result.set("treasury_value", offered.treasury_value);
  result.set("treasury_address", offered.treasury_address);
  result.set("coinbasevalue", offered.coinbase_value);
  result.set("tx_data", std::move(data));
  return result;
}

}  // namespace

TemplateClock TemplateClock::system() {
  return {unix_time_seconds, [] {
            const auto elapsed = std::chrono::steady_clock::now().time_since_epoch();
            return static_cast<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
          }};
}

BlockTemplate build_template(const Blockchain& chain, const Mempool& pool, uint64_t unix_seconds) {
  // Only so that what is locked uses nothing up: the tip may move before the base is
  // read, so each is looked at again.
  const uint32_t next_height = chain.get_best_height() + 1;
  const std::vector<Transaction> candidates =
      pool.get_transactions_for_block(kPoolBytesAsked, next_height, locked_time_at(unix_seconds));
  OutputsByOutpoint outputs;
  TemplateBase base = chain.read_template_base(candidates, outputs);
  if (base.broken || base.best_hash.is_zero()) {
    throw std::runtime_error(kNoBestBlock);
  }
  TemplateSelection selection = select_for_template(candidates, outputs, limits_for(base, unix_seconds));

  BlockTemplate offered;
  offered.version = kBlockVersion;
  offered.previous_block_hash = base.best_hash;
  offered.height = base.next_height;
  offered.bits = base.next_bits;
  offered.current_time = static_cast<int64_t>(unix_seconds);
  offered.previous_block_time = static_cast<int64_t>(base.prev_time);
  offered.total_fees = selection.total_fees;
  offered.miner_reward = coinbase_shares(base.next_height, selection.total_fees, base.total_supply).reward;
  offered.treasury_value = selection.total_fees >= kTreasuryFeesMin ? selection.total_fees / 2 : 0;
  offered.treasury_address = treasury::get_address();
  offered.coinbase_value = offered.miner_reward + offered.treasury_value;
  offered.transactions = std::move(selection.transactions);
  if (base.distribution) {
    offered.transactions.insert(offered.transactions.begin(), std::move(*base.distribution));
  }
  return offered;
}

TemplateBuilder::TemplateBuilder(const Blockchain& chain, const Mempool& pool, TemplateClock clock)
    : chain_(chain), pool_(pool), clock_(std::move(clock)) {}

JsonValue TemplateBuilder::get_template(const std::string& mining_address) {
  const std::shared_ptr<const JsonValue> current = get_current();
  JsonValue result = *current;
  result.set("curtime", clock_.unix_seconds());
  result.set("miningaddress", mining_address);
  return result;
}

std::shared_ptr<const JsonValue> TemplateBuilder::get_current() {
  const MutexLock lock(mutex_);
  const ChainStatus status = chain_.get_status();
  const int64_t begin_ms = clock_.steady_ms();
  const bool stands = current_ != nullptr && !status.broken && status.best_hash == tip_;
  if (!stands || begin_ms >= good_until_ms_) {
    const BlockTemplate built = build_template(chain_, pool_, clock_.unix_seconds());
    current_ = std::make_shared<const JsonValue>(to_json(built));
    tip_ = built.previous_block_hash;
    const int64_t end_ms = clock_.steady_ms();
    good_until_ms_ = end_ms + std::max(kTemplateAgeMaxMs, end_ms - begin_ms);
  }
  return current_;
}

}  // namespace norvel::rpc
