#include "rpc/template_selection.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "mempool/admission.h"

namespace norvel::rpc {

static_assert(kLengthBytes + kPolicyTransactionBytesMax <= kTemplateBytesMax,
              "what is relayed must fit an otherwise empty block");
static_assert(kPolicyFeeMax <= kTemplateFeesMax);

namespace {

bool is_selectable(const Transaction& tx) {
  return tx.type == TransactionType::TRANSFER || tx.type == TransactionType::MESSAGE ||
         tx.type == TransactionType::HTLC_FUNDING;
}

// The outputs that a transaction of the block may still spend.
//
// Invariant: nothing is counted before the transaction is taken.
class Spendables {
 public:
  explicit Spendables(const OutputsByOutpoint& outputs) : outputs_(outputs) {}

  // The fee of `tx`; nothing when it spends what is not there or not any more,
  // or pays out more than it spends.
  std::optional<int64_t> fee_of(const Transaction& tx) const {
    int64_t fee = 0;
    for (const TxIn& input : tx.inputs) {
      const std::optional<int64_t> value = find(input.prevout);
      if (!value || spent_.contains(input.prevout) || __builtin_add_overflow(fee, *value, &fee)) {
        return std::nullopt;
      }
    }
    for (const TxOut& output : tx.outputs) {
      if (output.value < 0 || __builtin_sub_overflow(fee, output.value, &fee)) {
        return std::nullopt;
      }
    }
    return fee < 0 ? std::nullopt : std::optional(fee);
  }

  void take(const Transaction& tx) {
    for (const TxIn& input : tx.inputs) {
      spent_.insert(input.prevout);
    }
    const uint256 txid = tx.get_txid();
    for (size_t i = 0; i < tx.outputs.size(); ++i) {
      made_[{txid, static_cast<uint32_t>(i)}] = tx.outputs[i].value;
    }
  }

 private:
  std::optional<int64_t> find(const OutPoint& outpoint) const {
    if (const auto made = made_.find(outpoint); made != made_.end()) {
      return made->second;
    }
    const auto output = outputs_.find(outpoint);
    return output == outputs_.end() ? std::nullopt : std::optional(output->second.value);
  }

  const OutputsByOutpoint& outputs_;
  std::map<OutPoint, int64_t> made_;
  std::set<OutPoint> spent_;
};

}  // namespace

size_t size_in_block(const Transaction& tx) {
  return kLengthBytes + tx.size();
}

TemplateSelection select_for_template(const std::vector<Transaction>& candidates, const OutputsByOutpoint& outputs,
                                      const TemplateLimits& limits) {
  TemplateSelection selection;
  Spendables spendables(outputs);
  size_t bytes_left = limits.bytes;
  for (const Transaction& tx : candidates) {
    std::string reason;
    if (!is_selectable(tx) || !is_final(tx, limits.height, limits.locked_time) || !check_outpoints(tx, reason)) {
      continue;
    }
    const size_t size = size_in_block(tx);
    const std::optional<int64_t> fee = spendables.fee_of(tx);
    if (size > bytes_left || !fee || *fee > limits.fees - selection.total_fees) {
      continue;
    }
    bytes_left -= size;
    selection.total_fees += *fee;
    spendables.take(tx);
    selection.transactions.push_back(tx);
  }
  return selection;
}

}  // namespace norvel::rpc
