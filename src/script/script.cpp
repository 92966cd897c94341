#include "script/script.h"

#include <limits>
#include <stdexcept>

#include "script/compact_size.h"

namespace norvel {

namespace {

constexpr size_t kPubkeyHashBytes = 20;
constexpr size_t kPaymentHashBytes = 32;
constexpr size_t kHtlcShapeBytesMin = 60;

// Where a P2PKH script keeps its parts: DUP HASH160 <20> hash EQUALVERIFY CHECKSIG.
constexpr size_t kP2pkhHashOffset = 3;
constexpr size_t kP2pkhBytes = kP2pkhHashOffset + kPubkeyHashBytes + 2;
static_assert(kP2pkhBytes == 25);

constexpr uint8_t byte_of(OpCode opcode) {
  return static_cast<uint8_t>(opcode);
}

void require_size(ByteView data, size_t size, const char* message) {
  if (data.size() != size) {
    throw std::runtime_error(message);
  }
}

// The part that P2PKH and both branches of an HTLC share.
void push_key_check(Script& script, ByteView pubkey_hash) {
  script.push_opcode(OpCode::OP_DUP);
  script.push_opcode(OpCode::OP_HASH160);
  script.push_data(pubkey_hash);
  script.push_opcode(OpCode::OP_EQUALVERIFY);
  script.push_opcode(OpCode::OP_CHECKSIG);
}

}  // namespace

void Script::push_opcode(OpCode opcode) {
  bytes.push_back(byte_of(opcode));
}

void Script::push_data(ByteView data) {
  if (data.size() < byte_of(OpCode::OP_PUSHDATA1)) {
    bytes.push_back(static_cast<uint8_t>(data.size()));
  } else if (data.size() <= std::numeric_limits<uint8_t>::max()) {
    push_opcode(OpCode::OP_PUSHDATA1);
    bytes.push_back(static_cast<uint8_t>(data.size()));
  } else if (data.size() <= std::numeric_limits<uint16_t>::max()) {
    push_opcode(OpCode::OP_PUSHDATA2);
    append_le(bytes, static_cast<uint16_t>(data.size()));
  } else {
    push_opcode(OpCode::OP_PUSHDATA4);
    append_le(bytes, static_cast<uint32_t>(data.size()));
  }
  append(bytes, data);
}

Bytes Script::serialize() const {
  Bytes out;
  append_compact_size(out, bytes.size());
  append(out, bytes);
  return out;
}

Script Script::deserialize(ByteView data, size_t& offset) {
  if (offset >= data.size()) {
    throw std::runtime_error("Invalid script data: offset out of range");
  }
  size_t at = offset;
  const uint64_t length = read_compact_size(data, at, "Invalid script length encoding");
  const ByteView program = take(data, at, length, "Invalid script data: insufficient bytes");
  offset = at;
  return Script(Bytes(program.begin(), program.end()));
}

Script Script::create_p2pkh_output(ByteView pubkey_hash) {
  require_size(pubkey_hash, kPubkeyHashBytes, "Invalid pubkey hash size");
  Script script;
  script.bytes.reserve(kP2pkhBytes);
  push_key_check(script, pubkey_hash);
  return script;
}

Script Script::create_p2pkh_input(ByteView signature, ByteView public_key) {
  Script script;
  script.push_data(signature);
  script.push_data(public_key);
  return script;
}

Script Script::create_htlc_output(ByteView recipient_pkh, ByteView refund_pkh, ByteView payment_hash,
                                  uint32_t locktime) {
  require_size(recipient_pkh, kPubkeyHashBytes, "recipient_pkh must be 20 bytes");
  require_size(refund_pkh, kPubkeyHashBytes, "refund_pkh must be 20 bytes");
  require_size(payment_hash, kPaymentHashBytes, "payment_hash must be 32 bytes");
  Script script;
  script.push_opcode(OpCode::OP_IF);
  script.push_opcode(OpCode::OP_SHA256);
  script.push_data(payment_hash);
  script.push_opcode(OpCode::OP_EQUALVERIFY);
  push_key_check(script, recipient_pkh);
  script.push_opcode(OpCode::OP_ELSE);
  script.push_data(to_le(locktime));
  script.push_opcode(OpCode::OP_CHECKLOCKTIMEVERIFY);
  script.push_opcode(OpCode::OP_DROP);
  push_key_check(script, refund_pkh);
  script.push_opcode(OpCode::OP_ENDIF);
  return script;
}

Script Script::create_htlc_input_claim(ByteView signature, ByteView public_key, ByteView preimage) {
  Script script = create_p2pkh_input(signature, public_key);
  script.push_data(preimage);
  script.push_opcode(OpCode::OP_1);
  return script;
}

Script Script::create_htlc_input_refund(ByteView signature, ByteView public_key) {
  Script script = create_p2pkh_input(signature, public_key);
  script.push_opcode(OpCode::OP_0);
  return script;
}

bool Script::is_htlc_script(ByteView program) {
  return program.size() >= kHtlcShapeBytesMin && program[0] == byte_of(OpCode::OP_IF) &&
         program[1] == byte_of(OpCode::OP_SHA256) && program.back() == byte_of(OpCode::OP_ENDIF);
}

Bytes Script::extract_pubkey_hash(ByteView program) {
  const bool is_p2pkh = program.size() == kP2pkhBytes && program[0] == byte_of(OpCode::OP_DUP) &&
                        program[1] == byte_of(OpCode::OP_HASH160) && program[2] == kPubkeyHashBytes &&
                        program[23] == byte_of(OpCode::OP_EQUALVERIFY) && program[24] == byte_of(OpCode::OP_CHECKSIG);
  if (!is_p2pkh) {
    return {};
  }
  const ByteView hash = program.subspan(kP2pkhHashOffset, kPubkeyHashBytes);
  return Bytes(hash.begin(), hash.end());
}

}  // namespace norvel
