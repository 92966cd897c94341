// The byte program attached to each output (locking script) and each input
// (unlocking script): its opcodes, its length-prefixed form, and the standard
// templates. Running a script is ScriptInterpreter's.
//
// Errors: builders and deserialize() throw std::runtime_error; recognisers
// answer false or empty. Threads: a plain value.

#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "core/bytes.h"

namespace norvel {

// Stored in outputs; never renumbered. The values 0x01 to 0x4b, which have no
// name, push that many of the bytes that follow. Any other value fails when it
// is executed.
enum class OpCode : uint8_t {
  OP_0 = 0x00,
  OP_PUSHDATA1 = 0x4c,
  OP_PUSHDATA2 = 0x4d,
  OP_PUSHDATA4 = 0x4e,
  OP_1 = 0x51,
  OP_2 = 0x52,
  OP_3 = 0x53,
  OP_4 = 0x54,
  OP_5 = 0x55,
  OP_6 = 0x56,
  OP_7 = 0x57,
  OP_8 = 0x58,
  OP_9 = 0x59,
  OP_10 = 0x5a,
  OP_11 = 0x5b,
  OP_12 = 0x5c,
  OP_13 = 0x5d,
  OP_14 = 0x5e,
  OP_15 = 0x5f,
  OP_16 = 0x60,
  OP_IF = 0x63,
  OP_NOTIF = 0x64,
  OP_ELSE = 0x67,
  OP_ENDIF = 0x68,
  OP_2DROP = 0x6d,
  OP_DROP = 0x75,
  OP_DUP = 0x76,
  OP_EQUAL = 0x87,
  OP_EQUALVERIFY = 0x88,
  OP_SHA256 = 0xa8,
  OP_HASH160 = 0xa9,
  OP_CHECKSIG = 0xac,
  OP_CHECKLOCKTIMEVERIFY = 0xb1,
};

class Script {
 public:
  Bytes bytes;

  Script() = default;
  explicit Script(Bytes program) : bytes(std::move(program)) {}

  bool operator==(const Script&) const = default;

  void push_opcode(OpCode opcode);

  // Appends the shortest push of `data`, which has at most 4,294,967,295 bytes;
  // none gives OP_0. `data` must not lie in `bytes`.
  void push_data(ByteView data);

  //   length   v  compact size
  //   program  length
  Bytes serialize() const;

  // Reads that form at `offset` and moves `offset` past it; on failure `offset`
  // stays.
  static Script deserialize(ByteView data, size_t& offset);

  // Pays the key whose HASH160 is `pubkey_hash` (20 bytes):
  //   DUP HASH160 <pubkey_hash> EQUALVERIFY CHECKSIG
  static Script create_p2pkh_output(ByteView pubkey_hash);

  // Unlocks it. `signature` ends with its signature hash type.
  static Script create_p2pkh_input(ByteView signature, ByteView public_key);

  // A hash-time-locked contract of 95 bytes: spendable by the recipient's key
  // together with the preimage whose single SHA-256 is `payment_hash` (32
  // bytes), or by the refund key once `locktime` is reached. Key hashes are 20
  // bytes each.
  //   IF   SHA256 <payment_hash> EQUALVERIFY DUP HASH160 <recipient_pkh> EQUALVERIFY CHECKSIG
  //   ELSE <locktime, 4 bytes> CHECKLOCKTIMEVERIFY DROP DUP HASH160 <refund_pkh> EQUALVERIFY CHECKSIG
  //   ENDIF
  static Script create_htlc_output(ByteView recipient_pkh, ByteView refund_pkh, ByteView payment_hash,
                                   uint32_t locktime);

  // Unlock its two branches. `signature` ends with its signature hash type.
  static Script create_htlc_input_claim(ByteView signature, ByteView public_key, ByteView preimage);
  static Script create_htlc_input_refund(ByteView signature, ByteView public_key);

  // Whether `program` has the outer shape of such a contract: at least 60
  // bytes, IF SHA256 in front, ENDIF at the end. Nothing between is looked at.
  static bool is_htlc_script(ByteView program);

  // The 20-byte hash that a script made by create_p2pkh_output() pays; empty
  // for any other script.
  Bytes extract_pubkey_hash() const { return extract_pubkey_hash(bytes); }
  static Bytes extract_pubkey_hash(ByteView program);
};

}  // namespace norvel
