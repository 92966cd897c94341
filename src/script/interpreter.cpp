#include "script/interpreter.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "core/transaction.h"
#include "crypto/hash.h"
#include "crypto/keys.h"
#include "crypto/signature.h"
#include "script/script.h"
#include "script/sighash.h"

namespace norvel {

namespace {

constexpr uint8_t kSignBit = 0x80;

// Written by whichever thread runs out of memory; readers compare two values of
// their own, and one fault too many only makes them careful.
std::atomic<uint64_t> memory_faults{0};

// One entry for each open conditional, with the false ones counted: a script
// may be nested as deep as it is long.
class ConditionStack {
 public:
  bool empty() const { return entries_.empty(); }
  bool all_true() const { return false_count_ == 0; }

  void push(bool condition) {
    entries_.push_back(condition);
    false_count_ += condition ? 0 : 1;
  }

  // These two return false when no conditional is open.
  bool pop() {
    if (entries_.empty()) {
      return false;
    }
    false_count_ -= entries_.back() ? 0 : 1;
    entries_.pop_back();
    return true;
  }

  bool invert_last() {
    if (entries_.empty()) {
      return false;
    }
    const bool inverted = !entries_.back();
    pop();
    push(inverted);
    return true;
  }

 private:
  std::vector<bool> entries_;
  size_t false_count_ = 0;
};

// One run of one script. Functions that return bool return false when the
// script has failed.
class ScriptRun {
 public:
  ScriptRun(const Script& script, ScriptStack& stack, const Transaction& tx, size_t input_index, ScriptBudget* budget)
      : script_(script), tx_(tx), input_index_(input_index), budget_(budget), stack_(stack) {}

  bool run() {
    if (budget_ != nullptr && !charge(budget_->script_bytes_left, script_.bytes.size())) {
      return false;
    }
    while (pc_ < script_.bytes.size()) {
      if (!step(static_cast<OpCode>(script_.bytes[pc_++]))) {
        return false;
      }
    }
    return conditions_.empty();
  }

 private:
  bool step(OpCode opcode);
  bool execute(OpCode opcode);
  bool apply(OpCode opcode);
  bool open_conditional(bool negated);
  bool read_push(OpCode opcode, ByteView& data);
  bool top_two_equal();
  bool check_signature();
  bool check_lock_time() const;
  const uint256* signature_hash(uint8_t sighash_type);
  bool charge(uint64_t& left, uint64_t cost);
  bool charge_hash(uint64_t bytes) { return budget_ == nullptr || charge(budget_->hash_bytes_left, bytes); }

  bool has(size_t element_count) const { return stack_.size() >= element_count; }

  ScriptElement pop() {
    ScriptElement top = std::move(stack_.back());
    stack_.pop_back();
    return top;
  }

  void push(ByteView bytes) { stack_.emplace_back(bytes); }
  void push_byte(uint8_t byte) { push({&byte, 1}); }

  const Script& script_;
  const Transaction& tx_;
  const size_t input_index_;
  ScriptBudget* const budget_;  // null without limits

  size_t pc_ = 0;
  ScriptStack& stack_;
  ConditionStack conditions_;

  // Types differ in the last bytes hashed only, so a script that names all 256 costs no more than one.
  std::optional<crypto::Hash256Prefix> preimage_;  // of script_, without the type
  size_t preimage_bytes_ = 0;
  std::map<uint8_t, uint256> signature_hashes_;  // of script_, by type
};

bool is_push(OpCode opcode) {
  return opcode <= OpCode::OP_PUSHDATA4;
}

size_t elements_needed(OpCode opcode) {
  switch (opcode) {
    case OpCode::OP_2DROP:
    case OpCode::OP_EQUAL:
    case OpCode::OP_EQUALVERIFY:
    case OpCode::OP_CHECKSIG:
      return 2;
    case OpCode::OP_DROP:
    case OpCode::OP_DUP:
    case OpCode::OP_SHA256:
    case OpCode::OP_HASH160:
    case OpCode::OP_CHECKLOCKTIMEVERIFY:
      return 1;
    default:
      return 0;
  }
}

bool ScriptRun::step(OpCode opcode) {
  switch (opcode) {
    case OpCode::OP_IF:
    case OpCode::OP_NOTIF:
      return open_conditional(opcode == OpCode::OP_NOTIF);
    case OpCode::OP_ELSE:
      return conditions_.invert_last();
    case OpCode::OP_ENDIF:
      return conditions_.pop();
    default:
      break;
  }
  if (conditions_.all_true()) {
    return execute(opcode);
  }
  // Unexecuted: only the data of pushes matters. A push past the end fails here
  // rather than at the end of the script, where a conditional is still open.
  ByteView skipped;
  return !is_push(opcode) || read_push(opcode, skipped);
}

bool ScriptRun::open_conditional(bool negated) {
  if (!conditions_.all_true()) {
    conditions_.push(false);
    return true;
  }
  if (!has(1)) {
    return false;
  }
  conditions_.push(pop().is_true() != negated);
  return true;
}

bool ScriptRun::execute(OpCode opcode) {
  if (is_push(opcode)) {
    ByteView data;
    if (!read_push(opcode, data)) {
      return false;
    }
    push(data);
    return true;
  }
  if (opcode >= OpCode::OP_1 && opcode <= OpCode::OP_16) {
    push_byte(static_cast<uint8_t>(static_cast<uint8_t>(opcode) - static_cast<uint8_t>(OpCode::OP_1) + 1));
    return true;
  }
  return has(elements_needed(opcode)) && apply(opcode);
}

bool ScriptRun::apply(OpCode opcode) {
  switch (opcode) {
    case OpCode::OP_2DROP:
      pop();
      pop();
      return true;
    case OpCode::OP_DROP:
      pop();
      return true;
    case OpCode::OP_DUP:
      stack_.push_back(stack_.back());
      return true;
    case OpCode::OP_EQUAL:
      push_byte(top_two_equal() ? 1 : 0);
      return true;
    case OpCode::OP_EQUALVERIFY:
      return top_two_equal();
    case OpCode::OP_SHA256:
      if (!charge_hash(stack_.back().sha256_cost())) {
        return false;
      }
      stack_.push_back(pop().sha256());
      return true;
    case OpCode::OP_HASH160:
      if (!charge_hash(stack_.back().hash160_cost())) {
        return false;
      }
      stack_.push_back(pop().hash160());
      return true;
    case OpCode::OP_CHECKSIG:
      return check_signature();
    case OpCode::OP_CHECKLOCKTIMEVERIFY:
      return check_lock_time();
    default:
      return false;
  }
}

// Sets `data` to what the push at pc_ carries and moves pc_ past it.
bool ScriptRun::read_push(OpCode opcode, ByteView& data) {
  const ByteView rest = ByteView(script_.bytes).subspan(pc_);
  size_t length = static_cast<uint8_t>(opcode);
  size_t length_bytes = 0;
  if (opcode >= OpCode::OP_PUSHDATA1) {
    length_bytes = size_t{1} << (length - static_cast<uint8_t>(OpCode::OP_PUSHDATA1));
    if (length_bytes > rest.size()) {
      return false;
    }
    length = 0;
    for (size_t i = 0; i < length_bytes; ++i) {
      length |= static_cast<size_t>(rest[i]) << (8 * i);
    }
  }
  if (length > rest.size() - length_bytes) {
    return false;
  }
  data = rest.subspan(length_bytes, length);
  pc_ += length_bytes + length;
  return true;
}

// Pops two.
bool ScriptRun::top_two_equal() {
  const ScriptElement top = pop();
  return pop() == top;
}

bool ScriptRun::charge(uint64_t& left, uint64_t cost) {
  if (cost > left) {
    budget_->exceeded = true;
    return false;
  }
  left -= cost;
  return true;
}

bool ScriptRun::check_signature() {
  if (budget_ != nullptr &&
      !(charge(budget_->signature_checks_left, 1) && charge(budget_->script_bytes_left, kSignatureCheckBytes))) {
    return false;
  }
  const ScriptElement public_key = pop();
  const ScriptElement signature = pop();
  if (signature.empty()) {
    push_byte(0);
    return true;
  }
  if (input_index_ >= tx_.inputs.size()) {
    return false;
  }
  const ByteView bytes = signature.view();
  const ByteView der = bytes.first(bytes.size() - 1);
  // Of other sizes neither can be valid; hashing a large transaction for them would be free work for a spammer.
  if (public_key.size() != crypto::kPublicKeyBytes || der.empty() || der.size() > crypto::kDerSignatureBytesMax) {
    push_byte(0);
    return true;
  }
  const uint256* const hash = signature_hash(bytes.back());
  if (hash == nullptr) {
    return false;
  }
  push_byte(ScriptInterpreter::verify_signature(der, public_key.view(), *hash) ? 1 : 0);
  return true;
}

// Null when the budget does not allow it.
const uint256* ScriptRun::signature_hash(uint8_t sighash_type) {
  const auto known = signature_hashes_.find(sighash_type);
  if (known != signature_hashes_.end()) {
    return &known->second;
  }
  Bytes preimage;
  if (!preimage_) {
    preimage = SignatureHasher::serialize_for_signature(tx_, input_index_, script_, sighash_type);
    preimage_bytes_ = preimage.size();
  }
  if (!charge_hash(preimage_bytes_ + sizeof(uint32_t))) {  // the type is appended in four bytes
    return nullptr;
  }
  if (!preimage_) {
    preimage_.emplace(preimage);
  }
  Bytes end;
  append_le(end, static_cast<uint32_t>(sighash_type));
  const uint256 hash = preimage_->finish(end);
  return &signature_hashes_.emplace(sighash_type, hash).first->second;
}

// The low 32 bits of an element that is read as a little-endian number with its
// sign in the top bit of the last byte.
uint32_t low_magnitude_bits(ByteView number) {
  const size_t count = std::min(number.size(), sizeof(uint32_t));
  uint32_t bits = 0;
  for (size_t i = 0; i < count; ++i) {
    const bool holds_sign = i + 1 == number.size();
    const auto byte = static_cast<uint8_t>(holds_sign ? number[i] & ~kSignBit : number[i]);
    bits |= static_cast<uint32_t>(byte) << (8 * i);
  }
  return bits;
}

bool ScriptRun::check_lock_time() const {
  if (stack_.back().is_negative()) {
    return false;
  }
  const uint32_t required = low_magnitude_bits(stack_.back().view());
  if (required > tx_.locktime || (required < kLockTimeThreshold) != (tx_.locktime < kLockTimeThreshold)) {
    return false;
  }
  return input_index_ >= tx_.inputs.size() || tx_.inputs[input_index_].sequence != kSequenceFinal;
}

}  // namespace

// A key of another size is refused before it is copied: it may be as long as a
// script.
bool ScriptInterpreter::verify_signature(ByteView signature, ByteView public_key, const uint256& hash) {
  if (public_key.size() != crypto::kPublicKeyBytes) {
    return false;
  }
  try {
    return crypto::verify_signature(hash.bytes(), signature, Bytes(public_key.begin(), public_key.end()));
  } catch (const std::bad_alloc&) {
    ++memory_faults;
    return false;
  } catch (...) {
    return false;
  }
}

uint64_t ScriptInterpreter::memory_fault_count() {
  return memory_faults;
}

bool ScriptInterpreter::execute_script(const Script& script, ScriptStack& stack, const Transaction& tx,
                                       size_t input_index, ScriptBudget* budget) {
  return ScriptRun(script, stack, tx, input_index, budget).run();
}

bool ScriptInterpreter::verify_script(const Transaction& tx, size_t input_index, const Script& script_sig,
                                      const Script& script_pubkey, ScriptBudget* budget) {
  if (input_index >= tx.inputs.size()) {
    return false;
  }
  ScriptStack stack;
  return execute_script(script_sig, stack, tx, input_index, budget) &&
         execute_script(script_pubkey, stack, tx, input_index, budget) && !stack.empty() && stack.back().is_true();
}

bool ScriptInterpreter::verify_input_signature(const Transaction& tx, size_t input_index, const TxOut& spent_output,
                                               ScriptBudget* budget) {
  if (input_index >= tx.inputs.size()) {
    return false;
  }
  const TxIn& input = tx.inputs[input_index];
  const Script locking_script(spent_output.locking_script());
  if (std::equal(input.pubkey.begin(), input.pubkey.end(), TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end())) {
    return verify_script(tx, input_index, Script(input.signature), locking_script, budget);
  }
  Bytes signature = input.signature;
  signature.push_back(static_cast<uint8_t>(SigHashType::ALL));
  return verify_script(tx, input_index, Script::create_p2pkh_input(signature, input.pubkey), locking_script, budget);
}

}  // namespace norvel
