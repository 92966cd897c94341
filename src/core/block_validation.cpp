// The rules of Block that look at its transactions.

#include <map>

#include "chain/utxo_set.h"
#include "core/block.h"
#include "core/clock.h"
#include "script/interpreter.h"

namespace norvel {

namespace {

using OutputMap = std::map<OutPoint, TxOut>;
using MadeOutputs = std::map<OutPoint, const TxOut*>;  // of the block itself, not yet spent in it

void add_outputs(const Transaction& tx, MadeOutputs& made) {
  const uint256 txid = tx.get_txid();
  for (size_t i = 0; i < tx.outputs.size(); ++i) {
    made.insert_or_assign({txid, static_cast<uint32_t>(i)}, &tx.outputs[i]);
  }
}

// The outputs that `tx` spends, from the block's own or from the UTXO set;
// false when one is found nowhere. A null outpoint spends nothing.
bool find_spent_outputs(const Transaction& tx, const MadeOutputs& made, const UTXOSet& utxos, OutputMap& spent) {
  for (const TxIn& input : tx.inputs) {
    if (input.prevout.is_null()) {
      continue;
    }
    if (const auto own = made.find(input.prevout); own != made.end()) {
      spent.insert_or_assign(own->first, *own->second);
    } else if (auto output = utxos.get_utxo(input.prevout)) {
      spent.insert_or_assign(input.prevout, std::move(*output));
    } else {
      return false;
    }
  }
  return true;
}

// No value is negative and the exact sum is at most `limit`.
bool values_within(const std::vector<TxOut>& outputs, int64_t limit) {
  int64_t left = limit;
  for (const TxOut& output : outputs) {
    if (output.value < 0 || output.value > left) {
      return false;
    }
    left -= output.value;
  }
  return true;
}

bool fail(std::string& error, const char* reason) {
  error = reason;
  return false;
}

}  // namespace

bool Block::has_valid_coinbase() const {
  if (transactions.empty() || transactions[0].type != TransactionType::COINBASE) {
    return false;
  }
  const Transaction& coinbase = transactions[0];
  if (coinbase.inputs.size() != 1 || !coinbase.inputs[0].prevout.is_null()) {
    return false;
  }
  if (coinbase.outputs.empty() || !values_within(coinbase.outputs, block_subsidy(height) + kCoinbaseFeesMax)) {
    return false;
  }
  for (size_t i = 1; i < transactions.size(); ++i) {
    if (transactions[i].type == TransactionType::COINBASE) {
      return false;
    }
  }
  return true;
}

bool Block::has_valid_head(std::string& error, ClockRule clock) const {
  if (transactions.empty()) {
    return fail(error, "Block has no transactions");
  }
  if (!header.check_proof_of_work()) {
    return fail(error, "Invalid proof of work");
  }
  if (!check_merkle_root()) {
    return fail(error, "Invalid merkle root");
  }
  if (!has_valid_coinbase()) {
    return fail(error, "Invalid or missing coinbase transaction");
  }
  if (clock == ClockRule::APPLY && header.timestamp > unix_time_seconds() + kFutureTimeMaxSeconds) {
    return fail(error, "Block timestamp too far in the future");
  }
  if (header.timestamp == 0) {
    return fail(error, "Invalid block timestamp");
  }
  return true;
}

bool Block::has_valid_frame(std::string& error) const {
  if (size() > kBlockBytesMax) {
    return fail(error, "Block too large");
  }
  if (header.version == 0) {
    return fail(error, "Invalid block version");
  }
  if (height != 0 && header.merkle_root.is_zero()) {
    return fail(error, "Invalid merkle root (zero)");
  }
  return true;
}

bool Block::has_valid_form(std::string& error, ClockRule clock) const {
  return has_valid_head(error, clock) && has_valid_frame(error);
}

bool Block::has_valid_inputs(std::string& error, const UTXOSet& utxos, const InputVerifier& verify) const {
  MadeOutputs made;
  for (size_t i = 0; i < transactions.size(); ++i) {
    const Transaction& tx = transactions[i];
    // What a distribution may spend is the treasury's business.
    if (i > 0 && tx.type != TransactionType::TREASURY_DISTRIBUTION) {
      OutputMap spent;
      if (!find_spent_outputs(tx, made, utxos, spent)) {
        return fail(error, "UTXO not found for transaction input");
      }
      if (!tx.verify_all_signatures(spent, verify)) {
        return fail(error, "Invalid transaction signature in block");
      }
      for (const TxIn& input : tx.inputs) {
        made.erase(input.prevout);
      }
    }
    add_outputs(tx, made);
  }
  return true;
}

bool Block::is_valid(std::string& error, const UTXOSet& utxos) const {
  const InputVerifier verify = [](const Transaction& tx, size_t input_index, const TxOut& spent) {
    return ScriptInterpreter::verify_input_signature(tx, input_index, spent);
  };
  return has_valid_head(error, ClockRule::APPLY) && has_valid_inputs(error, utxos, verify) && has_valid_frame(error);
}

}  // namespace norvel
