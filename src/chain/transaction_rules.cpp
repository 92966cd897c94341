#include "chain/transaction_rules.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <vector>

#include "script/script.h"

namespace norvel {

namespace {

// Every reason for a refusal; one that ends in a space goes on with a number.
constexpr const char kWrongType[] = "Transaction type not allowed: ";
constexpr const char kNoInputs[] = "Transaction has no inputs";
constexpr const char kNoOutputs[] = "Transaction has no outputs";
constexpr const char kUnrepresentable[] = "Transaction does not fit its byte format";
constexpr const char kTooLarge[] = "Transaction too large";
constexpr const char kOutputOutOfRange[] = "Value out of range in output ";
constexpr const char kOutputSumOutOfRange[] = "Sum of outputs out of range";
constexpr const char kNullInput[] = "Null outpoint in input ";
constexpr const char kRepeatedInput[] = "Output spent twice by one transaction";
constexpr const char kMissingOutput[] = "Spent output not found for input ";
constexpr const char kInputOutOfRange[] = "Value out of range in input ";
constexpr const char kInputSumOutOfRange[] = "Sum of inputs out of range";
constexpr const char kOverspent[] = "Outputs exceed inputs";
constexpr const char kBadSignature[] = "Invalid signature for input ";

constexpr size_t kCountMax = std::numeric_limits<uint16_t>::max();
constexpr size_t kSignatureBytesMax = std::numeric_limits<uint16_t>::max();
constexpr size_t kPubkeyBytesMax = std::numeric_limits<uint8_t>::max();
constexpr size_t kNoteBytesMax = std::numeric_limits<uint16_t>::max();
constexpr size_t kPubkeyHashBytes = 20;

bool fail(std::string& reason, const char* text) {
  reason = text;
  return false;
}

bool fail(std::string& reason, const char* text, size_t number) {
  reason = text + std::to_string(number);
  return false;
}

bool is_money(int64_t units) {
  return units >= 0 && units <= kMoneyMax;
}

// Both are money before; false when the sum is not.
bool add_money(int64_t& sum, int64_t units) {
  static_assert(kMoneyMax <= std::numeric_limits<int64_t>::max() / 2);
  sum += units;
  return is_money(sum);
}

// A note that a reader would take apart in another way, or not at all.
bool fits_byte_format(const crypto::EncryptedMessage& note) {
  const Bytes bytes = note.serialize();
  if (bytes.size() > kNoteBytesMax) {
    return false;
  }
  try {
    size_t offset = 0;
    const auto read = crypto::EncryptedMessage::deserialize(bytes, offset);
    return offset == bytes.size() && read.ciphertext == note.ciphertext && read.nonce == note.nonce &&
           read.ephemeral_pubkey == note.ephemeral_pubkey;
  } catch (const std::runtime_error&) {
    return false;
  }
}

bool fits_byte_format(const TxOut& output) {
  const bool hash_agrees = output.script_pubkey.empty()
                               ? output.pubkey_hash.size() == kPubkeyHashBytes
                               : output.pubkey_hash == Script::extract_pubkey_hash(output.script_pubkey);
  return (output.pubkey_hash.empty() || hash_agrees) && (!output.message || fits_byte_format(*output.message));
}

bool check_form(const Transaction& tx, std::string& reason) {
  if (tx.type != TransactionType::TRANSFER && tx.type != TransactionType::MESSAGE &&
      tx.type != TransactionType::HTLC_FUNDING) {
    return fail(reason, kWrongType, static_cast<uint8_t>(tx.type));
  }
  if (tx.inputs.empty()) {
    return fail(reason, kNoInputs);
  }
  if (tx.outputs.empty()) {
    return fail(reason, kNoOutputs);
  }
  if (!fits_byte_format(tx)) {
    return fail(reason, kUnrepresentable);
  }
  if (tx.size() > kTransactionBytesMax) {
    return fail(reason, kTooLarge);
  }
  return true;
}

bool sum_outputs(const Transaction& tx, int64_t& sum, std::string& reason) {
  for (size_t i = 0; i < tx.outputs.size(); ++i) {
    if (!is_money(tx.outputs[i].value)) {
      return fail(reason, kOutputOutOfRange, i);
    }
    if (!add_money(sum, tx.outputs[i].value)) {
      return fail(reason, kOutputSumOutOfRange);
    }
  }
  return true;
}

// Also lists the outputs that the inputs spend, in input order.
bool sum_inputs(const Transaction& tx, const OutputsByOutpoint& spent, int64_t& sum, std::vector<const TxOut*>& found,
                std::string& reason) {
  found.reserve(tx.inputs.size());
  for (const TxIn& input : tx.inputs) {
    const auto output = spent.find(input.prevout);
    if (output == spent.end()) {
      return fail(reason, kMissingOutput, found.size());
    }
    const int64_t value = output->second.value;
    if (!is_money(value)) {
      return fail(reason, kInputOutOfRange, found.size());
    }
    if (!add_money(sum, value)) {
      return fail(reason, kInputSumOutOfRange);
    }
    found.push_back(&output->second);
  }
  return true;
}

}  // namespace

bool check_outpoints(const Transaction& tx, std::string& reason) {
  std::vector<OutPoint> outpoints;
  outpoints.reserve(tx.inputs.size());
  for (const TxIn& input : tx.inputs) {
    if (input.prevout.is_null()) {
      return fail(reason, kNullInput, outpoints.size());
    }
    outpoints.push_back(input.prevout);
  }
  std::sort(outpoints.begin(), outpoints.end());
  if (std::adjacent_find(outpoints.begin(), outpoints.end()) != outpoints.end()) {
    return fail(reason, kRepeatedInput);
  }
  return true;
}

bool validate_transaction(const Transaction& tx, const OutputsByOutpoint& spent, const InputVerifier& verify,
                          std::string& reason) {
  int64_t output_sum = 0;
  int64_t input_sum = 0;
  std::vector<const TxOut*> found;
  if (!check_form(tx, reason) || !sum_outputs(tx, output_sum, reason) || !check_outpoints(tx, reason) ||
      !sum_inputs(tx, spent, input_sum, found, reason)) {
    return false;
  }
  if (output_sum > input_sum) {
    return fail(reason, kOverspent);
  }
  for (size_t i = 0; i < found.size(); ++i) {
    if (!verify(tx, i, *found[i])) {
      return fail(reason, kBadSignature, i);
    }
  }
  return true;
}

bool is_final(const Transaction& tx, uint32_t height, uint64_t time) {
  if (tx.locktime == 0 || tx.locktime < (tx.locktime < kLockTimeThreshold ? height : time)) {
    return true;
  }
  return std::all_of(tx.inputs.begin(), tx.inputs.end(),
                     [](const TxIn& input) { return input.sequence == kSequenceFinal; });
}

bool fits_byte_format(const Transaction& tx) {
  return tx.inputs.size() <= kCountMax && tx.outputs.size() <= kCountMax &&
         std::all_of(tx.inputs.begin(), tx.inputs.end(),
                     [](const TxIn& input) {
                       return input.signature.size() <= kSignatureBytesMax && input.pubkey.size() <= kPubkeyBytesMax;
                     }) &&
         std::all_of(tx.outputs.begin(), tx.outputs.end(),
                     [](const TxOut& output) { return fits_byte_format(output); });
}

std::optional<int64_t> transaction_fee(const Transaction& tx, const OutputsByOutpoint& spent) {
  int64_t fee = 0;
  for (const TxIn& input : tx.inputs) {
    const auto output = spent.find(input.prevout);
    if (output == spent.end() || __builtin_add_overflow(fee, output->second.value, &fee)) {
      return std::nullopt;
    }
  }
  for (const TxOut& output : tx.outputs) {
    if (__builtin_sub_overflow(fee, output.value, &fee)) {
      return std::nullopt;
    }
  }
  return fee;
}

}  // namespace norvel
