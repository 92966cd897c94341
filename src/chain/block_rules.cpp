#include "chain/block_rules.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "chain/transaction_rules.h"
#include "consensus/distribution.h"
#include "consensus/treasury.h"
#include "consensus/treasury_accounting.h"
#include "core/parallel.h"

namespace norvel {

namespace {

// What a coinbase may be off from half the fees, which it rounds down.
constexpr int64_t kTreasuryShareTolerance = 1;

bool fail(std::string& error, std::string reason) {
  error = std::move(reason);
  return false;
}

// The outputs that a transaction of the block may name: those made before it in
// the block and those of the set. Spending takes nothing away.
class SpendableView {
 public:
  explicit SpendableView(const UTXOSet& utxos) : utxos_(utxos) {}

  // `tx` outlives the view.
  void add(const Transaction& tx) { made_[tx.get_txid()] = &tx; }

  const TxOut* find_made(const OutPoint& outpoint) const {
    const auto maker = made_.find(outpoint.txid);
    const bool is_made = maker != made_.end() && outpoint.index < maker->second->outputs.size();
    return is_made ? &maker->second->outputs[outpoint.index] : nullptr;
  }

  // The outputs that `tx` spends, without those that are found nowhere.
  OutputsByOutpoint spent_by(const Transaction& tx) const {
    OutputsByOutpoint spent;
    for (const TxIn& input : tx.inputs) {
      if (const TxOut* made = find_made(input.prevout)) {
        spent.emplace(input.prevout, *made);
      } else if (auto output = utxos_.get_utxo(input.prevout)) {
        spent.emplace(input.prevout, std::move(*output));
      }
    }
    return spent;
  }

 private:
  const UTXOSet& utxos_;
  std::map<uint256, const Transaction*> made_;
};

void add_fee(int64_t& fees, std::optional<int64_t> fee) {
  if (fee.value_or(0) > 0 && __builtin_add_overflow(fees, *fee, &fees)) {
    fees = std::numeric_limits<int64_t>::max();
  }
}

// An input to be verified and the output of the same block that it spends; null
// when that one is in the set.
struct InputJob {
  const Transaction* tx;
  size_t input_index;
  const TxOut* made;
};

// In block order, up to the first transaction with an input that is found
// nowhere: the rules refuse the block there at the latest.
std::vector<InputJob> list_inputs(const Block& block, const UTXOSet& utxos) {
  std::vector<InputJob> jobs;
  SpendableView view(utxos);
  for (const Transaction& tx : block.transactions) {
    const size_t job_count = jobs.size();
    for (size_t i = 0; tx.is_ordinary() && i < tx.inputs.size(); ++i) {
      const OutPoint& prevout = tx.inputs[i].prevout;
      const TxOut* made = view.find_made(prevout);
      if (made != nullptr || utxos.has_utxo(prevout)) {
        jobs.push_back({&tx, i, made});
      } else if (!prevout.is_null()) {  // a null one is refused only after the inputs before it
        jobs.resize(job_count);
        return jobs;
      }
    }
    view.add(tx);
  }
  return jobs;
}

bool check_structure(const std::vector<Transaction>& txs, std::string& error) {
  if (txs.empty()) {
    return fail(error, "Block has no transactions");
  }
  if (txs[0].type != TransactionType::COINBASE) {
    return fail(error, "First transaction is not coinbase");
  }
  for (size_t i = 1; i < txs.size(); ++i) {
    if (txs[i].type == TransactionType::COINBASE) {
      return fail(error, "Non-first transaction is coinbase");
    }
  }
  for (size_t i = 2; i < txs.size(); ++i) {
    if (txs[i].type == TransactionType::TREASURY_DISTRIBUTION) {
      return fail(error, "TREASURY_DISTRIBUTION tx may only appear at index 1");
    }
  }
  return true;
}

std::string refusal_of(size_t index, const std::string& reason) {
  return "Invalid transaction in block [" + std::to_string(index) + "]: " + reason;
}

bool spend_once(const Transaction& tx, std::set<OutPoint>& spent_outpoints, std::string& error) {
  for (const TxIn& input : tx.inputs) {
    if (!spent_outpoints.insert(input.prevout).second) {
      return fail(error, "Double-spend within block");
    }
  }
  return true;
}

// Also sums the fees.
bool check_transactions(const Block& block, const UTXOSet& utxos, const InputVerifier& verify, int64_t& fees,
                        std::string& error) {
  SpendableView view(utxos);
  std::set<OutPoint> spent_outpoints;
  view.add(block.transactions[0]);
  for (size_t i = 1; i < block.transactions.size(); ++i) {
    const Transaction& tx = block.transactions[i];
    if (tx.is_ordinary()) {
      const OutputsByOutpoint spent = view.spent_by(tx);
      std::string reason;
      if (!is_final(tx, block.height, block.header.timestamp)) {
        reason = kNotFinalReason;
      } else {
        validate_transaction(tx, spent, verify, reason);
      }
      if (!reason.empty()) {
        return fail(error, refusal_of(i, reason));
      }
      if (!spend_once(tx, spent_outpoints, error)) {
        return false;
      }
      add_fee(fees, transaction_fee(tx, spent));
    }
    view.add(tx);
  }
  return true;
}

bool check_coinbase(const Block& block, int64_t fees, std::string& error) {
  const std::vector<TxOut>& outputs = block.transactions[0].outputs;
  if (outputs.empty()) {
    return fail(error, "Coinbase has no outputs");
  }
  const int64_t reward = block_subsidy(block.height);
  if (outputs[0].value > reward) {
    return fail(error, "Coinbase miner output exceeds block reward (" + std::to_string(outputs[0].value) + " > " +
                           std::to_string(reward));
  }
  if (outputs[0].get_pubkey_hash() == treasury::get_pubkey_hash()) {
    return fail(error, "Coinbase output[0] must be the miner address, not the treasury");
  }
  if (fees < kTreasuryFeesMin) {
    return true;
  }
  if (outputs.size() < 2) {
    return fail(error, "Coinbase missing treasury output");
  }
  if (outputs[1].get_pubkey_hash() != treasury::get_pubkey_hash()) {
    return fail(error, "Coinbase output[1] does not go to the treasury address");
  }
  const int64_t share = fees / 2;
  const int64_t value = outputs[1].value;
  if (value < share - kTreasuryShareTolerance || value > share + kTreasuryShareTolerance) {
    return fail(error, "Coinbase treasury output value mismatch (expected " + std::to_string(share) + ", got " +
                           std::to_string(value));
  }
  return true;
}

bool check_distribution(const Block& block, const TreasuryState& treasury, std::string& error) {
  const std::vector<Transaction>& txs = block.transactions;
  const bool is_present = txs.size() > 1 && txs[1].type == TransactionType::TREASURY_DISTRIBUTION;
  const bool is_height = treasury::is_distribution_height(block.height, treasury.distribution_interval);
  const bool is_pending = treasury.distribution_pending;
  if (is_height && !is_pending && is_present) {
    return fail(error, "Block contains unexpected TREASURY_DISTRIBUTION tx (no pending distribution)");
  }
  if (is_height && is_pending && !is_present) {
    return fail(error, "Block at distribution height " + std::to_string(block.height) +
                           " must include a TREASURY_DISTRIBUTION transaction");
  }
  std::string reason;
  if (is_height && is_present &&
      !treasury::validate_distribution_tx(txs[1], treasury.distribution_pool, treasury.pending_miner_counts,
                                          block.height, reason)) {
    return fail(error, "Invalid TREASURY_DISTRIBUTION tx: " + reason);
  }
  if (!is_height && is_present) {
    return fail(error, "TREASURY_DISTRIBUTION tx found at non-distribution height " + std::to_string(block.height));
  }
  // Nothing gets here while the rules above stand; a distribution makes money, so it is not left to them alone.
  if (is_present && !(is_height && is_pending)) {
    return fail(error, "TREASURY_DISTRIBUTION tx outside a pending distribution height");
  }
  return true;
}

}  // namespace

bool validate_context_free(const Block& block, ClockRule clock, std::string& error) {
  if (!block.has_valid_form(error, clock)) {
    return false;
  }
  for (size_t i = 0; i < block.transactions.size(); ++i) {
    if (!fits_byte_format(block.transactions[i])) {
      return fail(error, "Transaction in block [" + std::to_string(i) + "] does not fit its byte format");
    }
  }
  return !repeats_transaction(block) || fail(error, "Block contains a transaction twice");
}

bool repeats_transaction(const Block& block) {
  std::vector<uint256> txids;
  txids.reserve(block.transactions.size());
  for (const Transaction& tx : block.transactions) {
    txids.push_back(tx.get_txid());
  }
  std::sort(txids.begin(), txids.end());
  return std::adjacent_find(txids.begin(), txids.end()) != txids.end();
}

int64_t block_fees(const Block& block, const UTXOSet& utxos) {
  int64_t fees = 0;
  SpendableView view(utxos);
  for (const Transaction& tx : block.transactions) {
    if (tx.is_ordinary()) {
      add_fee(fees, transaction_fee(tx, view.spent_by(tx)));
    }
    view.add(tx);
  }
  return fees;
}

bool check_spends(const Block& block, std::string& error) {
  std::set<OutPoint> spent_outpoints;
  for (size_t i = 0; i < block.transactions.size(); ++i) {
    const Transaction& tx = block.transactions[i];
    std::string reason;
    if (!tx.is_ordinary()) {
      continue;
    }
    if (!check_outpoints(tx, reason)) {
      return fail(error, refusal_of(i, reason));
    }
    if (!spend_once(tx, spent_outpoints, error)) {
      return false;
    }
  }
  return true;
}

InputCheck verify_block_inputs(const Block& block, const UTXOSet& utxos, VerifiedInputs& verified,
                               const std::atomic<bool>& stop) {
  const std::vector<InputJob> jobs = list_inputs(block, utxos);
  std::atomic<size_t> first_failure{jobs.size()};
  std::atomic<bool> was_stopped{false};
  parallel_for(jobs.size(), [&](size_t i) {
    if (stop) {
      was_stopped = true;
    }
    if (was_stopped || i > first_failure) {
      return;
    }
    const InputJob& job = jobs[i];
    const OutPoint& prevout = job.tx->inputs[job.input_index].prevout;
    const std::optional<TxOut> from_set = job.made == nullptr ? utxos.get_utxo(prevout) : std::nullopt;
    const TxOut* const spent = from_set ? &*from_set : job.made;
    if (spent == nullptr || verified.verify(*job.tx, job.input_index, *spent)) {
      return;
    }
    size_t earliest = first_failure;
    while (i < earliest && !first_failure.compare_exchange_weak(earliest, i)) {
    }
  });
  return was_stopped ? InputCheck::STOPPED : InputCheck::DONE;
}

bool validate_block_transactions(const Block& block, const UTXOSet& utxos, const TreasuryState& treasury,
                                 VerifiedInputs& verified, std::string& error) {
  const InputVerifier verify = [&verified](const Transaction& tx, size_t input_index, const TxOut& spent) {
    return verified.verify(tx, input_index, spent);
  };
  int64_t fees = 0;
  return check_structure(block.transactions, error) && check_transactions(block, utxos, verify, fees, error) &&
         check_coinbase(block, fees, error) && check_distribution(block, treasury, error);
}

}  // namespace norvel
