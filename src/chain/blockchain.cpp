#include "chain/blockchain.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "chain/pool_sink.h"
#include "chain/transaction_rules.h"
#include "consensus/distribution.h"
#include "consensus/treasury_accounting.h"
#include "core/console.h"

namespace norvel {

Blockchain::WriteScope::WriteScope(Blockchain& chain) : chain_(chain) {
  ++chain_.open_scopes_;
}

Blockchain::WriteScope::~WriteScope() {
  if (--chain_.open_scopes_ > 0 || !chain_.save_noted_) {
    return;
  }
  try {
    const MutexLock lock(chain_.mutex_);
    if (chain_.save_noted_ && !chain_.save_state_locked()) {
      console::error_line("[Blockchain] WARNING: Failed to save state after adding block!");
    }
  } catch (const std::exception&) {
    // Out of memory: the changes stay noted for the next save.
  }
}

namespace {

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

}  // namespace

Blockchain::Blockchain(std::string data_directory, ChainOptions options)
    : directory_(without_trailing_slashes(std::move(data_directory))),
      rebuild_marker_(directory_ + "/" + kRebuildMarker),
      options_(options),
      verified_(options.verified_input_count),
      files_(directory_),
      database_(directory_),
      journal_(directory_ + "/undo.dat"),
      state_(options.distribution_interval) {}

Blockchain::~Blockchain() = default;

bool Blockchain::validate_transaction(const Transaction& tx, const std::map<OutPoint, TxOut>& spent,
                                      std::string& reason) const {
  const InputVerifier verify = [this](const Transaction& checked, size_t input_index, const TxOut& output) {
    return verified_.verify(checked, input_index, output);
  };
  return norvel::validate_transaction(tx, spent, verify, reason);
}

// One thread at a time tells the sink, in order. Whoever returns from here knows
// that its own events were told, by itself or by the thread before it, unless
// memory ran out.
void Blockchain::drain_events() {
  if (sink_ == nullptr) {
    return;
  }
  const MutexLock lock(drain_mutex_);
  try {
    for (; PoolEvent* event = events_.front(); events_.pop_front()) {
      tell(*event);
    }
  } catch (const std::exception&) {
    // Out of memory: the event stays and is told with the next one.
  }
}

void Blockchain::tell(PoolEvent& event) {
  if (event.kind == PoolEvent::Kind::TIP_CHANGED) {
    sink_->tip_changed();
    return;
  }
  if (event.block == nullptr) {
    std::optional<Block> block = load_block_from_disk(event.hash);
    if (!block) {
      sink_->block_lost();
      return;
    }
    event.block = std::make_shared<const Block>(std::move(*block));
  }
  if (event.kind == PoolEvent::Kind::BLOCK_CONNECTED) {
    sink_->block_connected(*event.block);
  } else {
    sink_->block_disconnected(*event.block);
  }
}

bool Blockchain::requires_distribution(uint32_t height) const {
  const MutexLock lock(mutex_);
  const TreasuryState& treasury = state_.treasury();
  return treasury::is_distribution_height(height, treasury.distribution_interval) && treasury.distribution_pending;
}

std::optional<Transaction> Blockchain::build_distribution_tx(uint32_t height) const {
  std::optional<Transaction> tx = required_distribution_tx(height);
  return tx && !tx->outputs.empty() ? std::move(tx) : std::nullopt;
}

std::optional<Transaction> Blockchain::required_distribution_tx(uint32_t height) const {
  const MutexLock lock(mutex_);
  return make_distribution(height);
}

std::optional<Transaction> Blockchain::make_distribution(uint32_t height) const {
  const TreasuryState& treasury = state_.treasury();
  if (!treasury::is_distribution_height(height, treasury.distribution_interval) || !treasury.distribution_pending) {
    return std::nullopt;
  }
  return treasury::create_distribution_tx(treasury.distribution_pool, treasury.pending_miner_counts, height);
}

int64_t Blockchain::get_treasury_balance() const {
  const MutexLock lock(mutex_);
  return state_.treasury().balance;
}

uint256 Blockchain::get_best_hash() const {
  const MutexLock lock(mutex_);
  return state_.tip_hash();
}

uint32_t Blockchain::get_best_height() const {
  const MutexLock lock(mutex_);
  return state_.tip_height();
}

int64_t Blockchain::get_total_supply() const {
  const MutexLock lock(mutex_);
  return state_.total_supply();
}

ChainStatus Blockchain::get_status() const {
  const MutexLock lock(mutex_);
  ChainStatus status{state_.tip_hash(), state_.tip_height(), broken_, rebuilding_, storing_fails_, std::nullopt};
  const BlockIndex* refused = refused_for_depth_ ? tree_.find(*refused_for_depth_) : nullptr;
  const BlockIndex* tip = tree_.find(state_.tip_hash());
  if (refused != nullptr && tip != nullptr && tip->chain_work < refused->chain_work) {
    status.branch_refused_for_depth = refused->hash;
  }
  return status;
}

TemplateBase Blockchain::read_template_base(const std::vector<Transaction>& candidates,
                                            std::map<OutPoint, TxOut>& outputs) const {
  const MutexLock lock(mutex_);
  TemplateBase base;
  base.best_hash = state_.tip_hash();
  base.next_height = state_.tip_height() + 1;
  base.next_bits = tree_.expected_child_bits(base.best_hash);
  if (const BlockIndex* tip = tree_.find(base.best_hash)) {
    base.prev_time = tip->timestamp;
  }
  base.total_supply = state_.total_supply();
  base.change_number = change_number_;
  base.distribution = make_distribution(base.next_height);
  base.distribution_required = base.distribution.has_value();
  base.broken = broken_;
  outputs.clear();
  for (const Transaction& candidate : candidates) {
    for (const TxIn& input : candidate.inputs) {
      if (auto output = state_.utxos().get_utxo(input.prevout)) {
        outputs.insert_or_assign(input.prevout, std::move(*output));
      }
    }
  }
  return base;
}

bool Blockchain::has_block(const uint256& hash) const {
  const MutexLock lock(mutex_);
  return tree_.find(hash) != nullptr;
}

std::optional<BlockIndex> Blockchain::get_block_index(const uint256& hash) const {
  const MutexLock lock(mutex_);
  const BlockIndex* entry = tree_.find(hash);
  return entry == nullptr ? std::nullopt : std::optional(*entry);
}

std::optional<uint256> Blockchain::get_block_hash(uint32_t height) const {
  const MutexLock lock(mutex_);
  return height < tree_.active().size() ? std::optional(tree_.active()[height]) : std::nullopt;
}

std::optional<uint32_t> Blockchain::get_fork_height(const uint256& hash) const {
  const MutexLock lock(mutex_);
  return tree_.find(hash) == nullptr ? std::nullopt : std::optional(tree_.fork_height(hash));
}

std::optional<uint32_t> Blockchain::get_transaction_height(const uint256& txid) const {
  const MutexLock lock(mutex_);
  const auto& heights = state_.indexes().transaction_heights();
  const auto found = heights.find(txid);
  return found == heights.end() ? std::nullopt : std::optional(found->second);
}

std::optional<Transaction> Blockchain::get_transaction(const uint256& txid) const {
  const MutexLock lock(mutex_);
  const auto& heights = state_.indexes().transaction_heights();
  const auto found = heights.find(txid);
  if (found == heights.end() || found->second >= tree_.active().size()) {
    return std::nullopt;
  }
  const std::optional<Block> block = load_block(tree_.active()[found->second]);
  if (block) {
    for (const Transaction& tx : block->transactions) {
      if (tx.get_txid() == txid) {
        return tx;
      }
    }
  }
  return std::nullopt;
}

std::vector<uint256> Blockchain::get_address_transactions(const Bytes& pubkey_hash) const {
  const MutexLock lock(mutex_);
  const auto& addresses = state_.indexes().address_transactions();
  const auto found = addresses.find(pubkey_hash);
  return found == addresses.end() ? std::vector<uint256>() : found->second;
}

size_t Blockchain::count_address_transactions(const Bytes& pubkey_hash) const {
  const MutexLock lock(mutex_);
  const auto& addresses = state_.indexes().address_transactions();
  const auto found = addresses.find(pubkey_hash);
  return found == addresses.end() ? 0 : found->second.size();
}

std::vector<uint256> Blockchain::get_newest_address_transactions(const Bytes& pubkey_hash, size_t count_max) const {
  const MutexLock lock(mutex_);
  const auto& addresses = state_.indexes().address_transactions();
  const auto found = addresses.find(pubkey_hash);
  if (found == addresses.end()) {
    return {};
  }
  const std::vector<uint256>& all = found->second;
  const size_t count = std::min(count_max, all.size());
  return {all.rbegin(), std::next(all.rbegin(), static_cast<std::ptrdiff_t>(count))};
}

std::optional<Bytes> Blockchain::get_revealed_key(const std::string& address) const {
  const MutexLock lock(mutex_);
  const auto& keys = state_.indexes().revealed_keys();
  const auto found = keys.find(address);
  return found == keys.end() ? std::nullopt : std::optional(found->second);
}

uint64_t Blockchain::get_change_number() const {
  const MutexLock lock(mutex_);
  return change_number_;
}

}  // namespace norvel
