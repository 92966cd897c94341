// Runs an unlocking and a locking script on one stack and decides whether an
// input may spend an output.
//
// There is no limit on stack depth, element size or the number of opcodes.
// Copies share their bytes, so memory stays within a few dozen bytes for each
// byte of script.
//
// Errors: every failure is a false result; nothing is thrown for a bad script.
// Threads: stateless; a stack belongs to one thread.

#pragma once

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"
#include "core/uint256.h"
#include "script/script_budget.h"
#include "script/script_stack.h"

namespace norvel {

class Script;
class Transaction;
struct TxOut;

class ScriptInterpreter {
 public:
  // Whether `signature` (DER, without the signature hash type) is valid for
  // the 32 bytes of `hash` and the 33-byte `public_key`.
  static bool verify_signature(ByteView signature, ByteView public_key, const uint256& hash);

  // How many signature checks were answered false for lack of memory since the
  // process began: a verdict reached while it grew says nothing. Thread-safe.
  static uint64_t memory_fault_count();

  // Runs `script` for input `input_index` of `tx`, starting from `stack` and
  // leaving there what the script left, also when it fails. A signature check
  // of an input that does not exist fails the script. OP_CHECKSIG commits to
  // the whole of `script`. Each run takes its cost from `budget`, when there is
  // one: a check for every OP_CHECKSIG that is executed, the bytes that other
  // opcodes hash, and once for each signature hash type all the bytes it signs, as
  // if each type were hashed whole; what the types share is hashed once a run.
  static bool execute_script(const Script& script, ScriptStack& stack, const Transaction& tx, size_t input_index,
                             ScriptBudget* budget = nullptr);

  // Runs `script_sig` on an empty stack, then `script_pubkey` on what that
  // left. True when both succeed and the top element is true; the elements
  // below do not matter.
  static bool verify_script(const Transaction& tx, size_t input_index, const Script& script_sig,
                            const Script& script_pubkey, ScriptBudget* budget = nullptr);

  // Whether input `input_index` of `tx` unlocks `spent_output`. An input whose
  // pubkey is "HTLC" carries its unlocking script in the signature field; any
  // other carries the bare DER signature (type ALL) and the public key of a
  // P2PKH spend.
  static bool verify_input_signature(const Transaction& tx, size_t input_index, const TxOut& spent_output,
                                     ScriptBudget* budget = nullptr);
};

}  // namespace norvel
