#include "mempool/admission.h"

#include <algorithm>

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

bool is_verified_already(const Transaction&, size_t, const TxOut&) {
  return true;
}

}  // namespace

TransactionAdmission::TransactionAdmission(const Blockchain& chain, Mempool& pool) : chain_(chain), pool_(pool) {}

AdmissionOutcome TransactionAdmission::accept(const Transaction& tx, std::string& reason, int64_t& fee) {
  const uint256 txid = tx.get_txid();
  const uint64_t change_number = chain_.get_change_number();
  if (pool_.get_transaction(txid) || is_in_chain(txid)) {
    return AdmissionOutcome::KNOWN;
  }
  OutputsByOutpoint spent;
  bool spends_pool = false;
  if (const auto missing = collect_spent(tx, spent, spends_pool)) {
    reason = "missing parent " + missing->txid.to_hex();
    return AdmissionOutcome::MISSING_PARENT;
  }
  const AdmissionOutcome verdict = check(tx, spent, reason);
  if (verdict != AdmissionOutcome::ACCEPTED) {
    return verdict;
  }
  const int64_t paid = std::max<int64_t>(0, transaction_fee(tx, spent).value_or(0));
  const bool added = pool_.add_transaction(tx, paid, reason);
  for (const uint256& evicted : pool_.take_evicted()) {
    remove_stranded_children(evicted);
  }
  if (!added) {
    return AdmissionOutcome::NOT_TAKEN;
  }
  if (spends_pool || chain_.get_change_number() != change_number) {
    const AdmissionOutcome confirmed = confirm(tx, reason);
    if (confirmed != AdmissionOutcome::ACCEPTED) {
      return confirmed;
    }
  }
  fee = paid;
  return AdmissionOutcome::ACCEPTED;
}

bool TransactionAdmission::is_in_chain(const uint256& txid) const {
  return chain_.get_transaction_height(txid).has_value();
}

std::optional<TxOut> TransactionAdmission::find_output(const OutPoint& outpoint) const {
  std::optional<TxOut> output = chain_.get_utxo_set().get_utxo(outpoint);
  return output ? output : pool_.get_output(outpoint);
}

// Returns the first input that is found nowhere. A parent that a block confirms
// between the two look-ups is in neither place, so that is believed only of a
// chain that stood still.
std::optional<OutPoint> TransactionAdmission::collect_spent(const Transaction& tx, OutputsByOutpoint& spent,
                                                            bool& spends_pool) const {
  std::optional<OutPoint> missing;
  for (int i = 0; i < kLookupsMax; ++i) {
    const uint64_t change_number = chain_.get_change_number();
    spent.clear();
    missing.reset();
    for (const TxIn& input : tx.inputs) {
      std::optional<TxOut> output = chain_.get_utxo_set().get_utxo(input.prevout);
      if (!output) {
        output = pool_.get_output(input.prevout);
        spends_pool = true;
      }
      if (!output) {
        missing = input.prevout;
        break;
      }
      spent.emplace(input.prevout, std::move(*output));
    }
    if (!missing || chain_.get_change_number() == change_number) {
      break;
    }
  }
  return missing;
}

// The rules of blocks that cost little stand before policy, so that whoever
// breaks one is blamed; signatures come last.
AdmissionOutcome TransactionAdmission::check(const Transaction& tx, const OutputsByOutpoint& spent,
                                             std::string& reason) const {
  if (!validate_transaction(tx, spent, is_verified_already, reason)) {
    return AdmissionOutcome::INVALID;
  }
  if (transaction_fee(tx, spent).value_or(0) > kPolicyFeeMax) {
    reason = "fee above what a block may pay out";
    return AdmissionOutcome::NOT_TAKEN;
  }
  if (tx.size() > kPolicyTransactionBytesMax) {
    reason = "too large for a block with its coinbase";
    return AdmissionOutcome::NOT_TAKEN;
  }
  if (!is_final_for_next_block(tx)) {
    reason = "not final for the next block";
    return AdmissionOutcome::NOT_TAKEN;
  }
  return check_scripts(tx, spent, reason);
}

// Remembers verified inputs only of a transaction that passed whole: otherwise
// one over the budget would pass piece by piece when offered again.
AdmissionOutcome TransactionAdmission::check_scripts(const Transaction& tx, const OutputsByOutpoint& spent,
                                                     std::string& reason) const {
  VerifiedInputs& verified = chain_.get_verified_inputs();
  ScriptBudget budget{kPolicySignatureChecksMax, kPolicyHashBytesMax};
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

// Settles what became of a transaction already inserted.
AdmissionOutcome TransactionAdmission::confirm(const Transaction& tx, std::string& reason) {
  if (still_stands(tx)) {
    return AdmissionOutcome::ACCEPTED;
  }
  if (is_in_chain(tx.get_txid())) {
    pool_.remove_transaction(tx.get_txid());  // its children, if any, stand on the chain now
    return AdmissionOutcome::KNOWN;
  }
  pool_.remove_with_descendants(tx.get_txid());
  reason = "made impossible while it was checked";
  return AdmissionOutcome::NOT_TAKEN;
}

// Answers for one state of the chain. While a block is connected or a branch is
// switched, the unspent outputs are of no single state.
bool TransactionAdmission::still_stands(const Transaction& tx) const {
  for (int i = 0; i < kLookupsMax; ++i) {
    const uint64_t change_number = chain_.get_change_number();
    const bool stands = std::all_of(tx.inputs.begin(), tx.inputs.end(),
                                    [this](const TxIn& input) { return find_output(input.prevout).has_value(); }) &&
                        is_final_for_next_block(tx);
    if (chain_.get_change_number() == change_number) {
      return stands;
    }
  }
  return false;
}

bool TransactionAdmission::is_final_for_next_block(const Transaction& tx) const {
  return is_final(tx, chain_.get_best_height() + 1, unix_time_seconds());
}

void TransactionAdmission::remove_stranded_children(const uint256& parent) {
  for (const uint256& child : pool_.get_children(parent)) {
    const std::optional<Transaction> tx = pool_.get_transaction(child);
    if (tx && std::any_of(tx->inputs.begin(), tx->inputs.end(), [&](const TxIn& input) {
          return input.prevout.txid == parent && !find_output(input.prevout);
        })) {
      pool_.remove_with_descendants(child);
    }
  }
}

}  // namespace norvel
