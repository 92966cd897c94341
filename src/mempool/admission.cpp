#include "mempool/admission.h"

#include <algorithm>
#include <list>
#include <utility>

#include "chain/blockchain.h"
#include "core/clock.h"
#include "mempool/mempool.h"
#include "script/interpreter.h"
#include "script/script_budget.h"

namespace norvel {

namespace {

// How often look-ups are repeated for a chain that changes meanwhile, as it does
// while a node catches up.
constexpr int kLookupsMax = 16;

constexpr const char kAlreadyInChain[] = "Transaction already in chain";

// What the inputs spend, in their order, each once.
std::vector<OutPoint> distinct_outpoints(const Transaction& tx) {
  std::set<OutPoint> seen;
  std::vector<OutPoint> outpoints;
  for (const TxIn& input : tx.inputs) {
    if (seen.insert(input.prevout).second) {
      outpoints.push_back(input.prevout);
    }
  }
  return outpoints;
}

}  // namespace

TransactionAdmission::TransactionAdmission(const Blockchain& chain, Mempool& pool) : chain_(chain), pool_(pool) {}

AdmissionOutcome TransactionAdmission::accept(const Transaction& tx, std::string& reason, int64_t& fee) {
  return admit(tx, Policy::RELAY, reason, fee);
}

AdmissionOutcome TransactionAdmission::accept_returned(const Transaction& tx) {
  std::string reason;
  int64_t fee = 0;
  return admit(tx, Policy::NONE, reason, fee);
}

AdmissionOutcome TransactionAdmission::admit(const Transaction& tx, Policy policy, std::string& reason, int64_t& fee) {
  const uint256 txid = tx.get_txid();
  const uint64_t change_number = chain_.get_change_number();
  if (is_known(txid, reason)) {
    return AdmissionOutcome::KNOWN;
  }
  OutputsByOutpoint spent;
  bool spends_pool = false;
  if (const auto missing = collect_spent(tx, spent, spends_pool)) {
    reason = "missing parent " + missing->txid.to_hex();
    return AdmissionOutcome::MISSING_PARENT;
  }
  AdmissionOutcome outcome = check(tx, spent, policy, reason);
  if (outcome != AdmissionOutcome::ACCEPTED) {
    return outcome;
  }
  const int64_t paid = std::max<int64_t>(0, transaction_fee(tx, spent).value_or(0));
  const bool added = pool_.add_transaction(tx, paid, reason);
  try {
    remove_stranded_by_eviction();
    if (!added) {
      return AdmissionOutcome::NOT_TAKEN;
    }
    if (spends_pool || chain_.get_change_number() != change_number) {
      outcome = confirm(tx, reason);
    }
  } catch (...) {
    if (added) {
      pool_.remove_with_descendants(txid);
    }
    throw;
  }
  if (outcome == AdmissionOutcome::ACCEPTED) {
    fee = paid;
  }
  return outcome;
}

bool TransactionAdmission::is_known(const uint256& txid, std::string& reason) const {
  if (pool_.has_transaction(txid)) {
    reason = kAlreadyInPool;
    return true;
  }
  if (is_in_chain(txid)) {
    reason = kAlreadyInChain;
    return true;
  }
  return false;
}

bool TransactionAdmission::is_in_chain(const uint256& txid) const {
  return chain_.get_transaction_height(txid).has_value();
}

bool TransactionAdmission::has_output(const OutPoint& outpoint) const {
  return chain_.get_utxo_set().has_utxo(outpoint) || pool_.has_output(outpoint);
}

// Returns the first input that is found nowhere; nothing is copied before all
// are found. A parent that a block confirms between the two look-ups is in
// neither place, so that is believed only of a chain that stood still.
std::optional<OutPoint> TransactionAdmission::collect_spent(const Transaction& tx, OutputsByOutpoint& spent,
                                                            bool& spends_pool) const {
  const std::vector<OutPoint> outpoints = distinct_outpoints(tx);
  std::optional<OutPoint> missing;
  for (int i = 0; i < kLookupsMax; ++i) {
    const uint64_t change_number = chain_.get_change_number();
    const auto absent = std::ranges::find_if_not(outpoints, [this](const OutPoint& at) { return has_output(at); });
    missing = absent != outpoints.end() ? std::optional(*absent) : copy_spent(outpoints, spent, spends_pool);
    if (!missing || chain_.get_change_number() == change_number) {
      break;
    }
  }
  return missing;
}

std::optional<OutPoint> TransactionAdmission::copy_spent(const std::vector<OutPoint>& outpoints,
                                                         OutputsByOutpoint& spent, bool& spends_pool) const {
  spent.clear();
  for (const OutPoint& outpoint : outpoints) {
    std::optional<TxOut> output = chain_.get_utxo_set().get_utxo(outpoint);
    if (!output) {
      output = pool_.get_output(outpoint);
      spends_pool = true;
    }
    if (!output) {
      return outpoint;
    }
    spent.emplace(outpoint, std::move(*output));
  }
  return std::nullopt;
}

// A check that ran out of memory, this one or another that ran beside it, blames
// nobody.
AdmissionOutcome TransactionAdmission::check(const Transaction& tx, const OutputsByOutpoint& spent, Policy policy,
                                             std::string& reason) const {
  const uint64_t memory_faults = ScriptInterpreter::memory_fault_count();
  const AdmissionOutcome outcome = check_rules(tx, spent, policy, reason);
  if (outcome == AdmissionOutcome::INVALID && ScriptInterpreter::memory_fault_count() != memory_faults) {
    reason = "not enough memory to check it";
    return AdmissionOutcome::NOT_TAKEN;
  }
  return outcome;
}

// The rules of blocks stand before policy, signatures included, so that whoever
// breaks one is blamed.
AdmissionOutcome TransactionAdmission::check_rules(const Transaction& tx, const OutputsByOutpoint& spent, Policy policy,
                                                   std::string& reason) const {
  if (policy == Policy::RELAY) {
    const AdmissionOutcome verdict = check_scripts(tx, spent, reason);
    if (verdict != AdmissionOutcome::ACCEPTED) {
      return verdict;
    }
    if (transaction_fee(tx, spent).value_or(0) > kPolicyFeeMax) {
      reason = "fee above what a block may pay out";
      return AdmissionOutcome::NOT_TAKEN;
    }
    if (tx.size() > kPolicyTransactionBytesMax) {
      reason = "too large for a block with its coinbase";
      return AdmissionOutcome::NOT_TAKEN;
    }
  } else if (!chain_.validate_transaction(tx, spent, reason)) {
    return AdmissionOutcome::INVALID;
  }
  if (!is_final_for_next_block(tx)) {
    reason = "not final for the next block";
    return AdmissionOutcome::NOT_TAKEN;
  }
  return AdmissionOutcome::ACCEPTED;
}

// All rules of blocks, the scripts within the budget. Remembers verified inputs
// only of a transaction that passed whole: otherwise one over the budget would
// pass piece by piece when offered again.
AdmissionOutcome TransactionAdmission::check_scripts(const Transaction& tx, const OutputsByOutpoint& spent,
                                                     std::string& reason) const {
  VerifiedInputs& verified = chain_.get_verified_inputs();
  ScriptBudget budget{kPolicySignatureChecksMax, kPolicyHashBytesMax, kPolicyScriptBytesMax};
  const auto verify = [&](const Transaction& spender, size_t input_index, const TxOut& output) {
    return verified.contains(spender, input_index, output) ||
           ScriptInterpreter::verify_input_signature(spender, input_index, output, &budget);
  };
  std::string failure;
  const bool valid = validate_transaction(tx, spent, verify, failure);
  if (budget.exceeded) {
    reason = "scripts cost more than relay allows";
    return AdmissionOutcome::NOT_TAKEN;
  }
  if (!valid) {
    reason = failure;
    return AdmissionOutcome::INVALID;
  }
  for (size_t i = 0; i < tx.inputs.size(); ++i) {
    verified.remember(tx, i, spent.at(tx.inputs[i].prevout));
  }
  return AdmissionOutcome::ACCEPTED;
}

// Follows up what the pool evicted, for whatever call that was.
void TransactionAdmission::remove_stranded_by_eviction() {
  std::list<uint256> evicted = pool_.take_evicted();
  try {
    std::set<uint256> children;
    for (const uint256& parent : evicted) {
      const std::vector<uint256> left = pool_.get_children(parent);
      children.insert(left.begin(), left.end());
    }
    remove_stranded(children);
  } catch (...) {
    pool_.put_back_evicted(std::move(evicted));
    throw;
  }
}

// Settles what became of a transaction already inserted.
AdmissionOutcome TransactionAdmission::confirm(const Transaction& tx, std::string& reason) {
  if (still_stands(distinct_outpoints(tx)) && is_final_for_next_block(tx)) {
    return AdmissionOutcome::ACCEPTED;
  }
  if (remove_fallen(tx.get_txid())) {
    reason = kAlreadyInChain;
    return AdmissionOutcome::KNOWN;
  }
  reason = "made impossible while it was checked";
  return AdmissionOutcome::NOT_TAKEN;
}

// Removes what no longer stands. True when it is in the chain, on which its
// children, if any, stand now.
bool TransactionAdmission::remove_fallen(const uint256& txid) {
  if (is_in_chain(txid)) {
    pool_.remove_transaction(txid);
    return true;
  }
  pool_.remove_with_descendants(txid);
  return false;
}

// Whether chain and pool have all of these, for one state of the chain. While a
// block is connected or a branch is switched, the unspent outputs are of no
// single state.
bool TransactionAdmission::still_stands(const std::vector<OutPoint>& outpoints) const {
  for (int i = 0; i < kLookupsMax; ++i) {
    const uint64_t change_number = chain_.get_change_number();
    const bool stands = std::ranges::all_of(outpoints, [this](const OutPoint& at) { return has_output(at); });
    if (chain_.get_change_number() == change_number) {
      return stands;
    }
  }
  return false;
}

bool TransactionAdmission::is_final_for_next_block(const Transaction& tx) const {
  return is_final(tx, chain_.get_best_height() + 1, unix_time_seconds());
}

// What the chain holds goes first and alone: as long as the pool has it too, its
// outputs count as unspent.
void TransactionAdmission::remove_stranded(const std::set<uint256>& txids) {
  for (const uint256& txid : txids) {
    if (is_in_chain(txid)) {
      pool_.remove_transaction(txid);
    }
  }
  for (const uint256& txid : txids) {
    if (!still_stands(pool_.get_prevouts(txid))) {
      remove_fallen(txid);
    }
  }
}

void TransactionAdmission::remove_not_final() {
  for (const uint256& txid : pool_.get_not_final(chain_.get_best_height() + 1, unix_time_seconds())) {
    pool_.remove_with_descendants(txid);
  }
}

}  // namespace norvel
