#include "script/sighash.h"

#include <stdexcept>

#include "core/transaction.h"
#include "crypto/hash.h"
#include "script/compact_size.h"
#include "script/script.h"

namespace norvel {

namespace {

// Room for the fixed fields, the counts and the appended signature hash type.
constexpr size_t kFixedBytesMax = 1 + 8 + 4 + 9 + 9 + 9 + 4 + 4;
// prevout, the empty script of an input that is not being signed, sequence.
constexpr size_t kInputBytes = 36 + 1 + 4;
// value, script length, message flag.
constexpr size_t kOutputBytesMin = 8 + 1 + 1;
constexpr size_t kUsualScriptBytes = 25;

// What one allocation should hold: exact but for scripts and messages of
// unusual length.
size_t expected_bytes(const Transaction& tx, const Script& script_code) {
  size_t bytes = kFixedBytesMax + script_code.bytes.size() + tx.inputs.size() * kInputBytes;
  for (const TxOut& output : tx.outputs) {
    const size_t script_bytes = output.script_pubkey.empty() ? kUsualScriptBytes : output.script_pubkey.size();
    bytes += kOutputBytesMin + script_bytes;
  }
  return bytes;
}

void append_input(Bytes& out, const TxIn& input, ByteView script) {
  append(out, input.prevout.txid.bytes());
  append_le(out, input.prevout.index);
  append_compact_size(out, script.size());
  append(out, script);
  append_le(out, input.sequence);
}

}  // namespace

Bytes SignatureHasher::serialize_for_signature(const Transaction& tx, size_t input_index, const Script& script_code,
                                               uint8_t /*sighash_type*/) {
  Bytes out;
  out.reserve(expected_bytes(tx, script_code));
  append_le(out, static_cast<uint8_t>(tx.type));
  append_le(out, tx.timestamp);
  append_le(out, tx.version);
  append_compact_size(out, tx.inputs.size());
  for (size_t i = 0; i < tx.inputs.size(); ++i) {
    append_input(out, tx.inputs[i], i == input_index ? ByteView(script_code.bytes) : ByteView());
  }
  append_compact_size(out, tx.outputs.size());
  for (const TxOut& output : tx.outputs) {
    output.serialize_into(out);
  }
  append_le(out, tx.locktime);
  return out;
}

uint256 SignatureHasher::compute_signature_hash(const Transaction& tx, size_t input_index, const Script& script_code,
                                                uint8_t sighash_type) {
  if (input_index >= tx.inputs.size()) {
    throw std::runtime_error("Input index out of range");
  }
  Bytes preimage = serialize_for_signature(tx, input_index, script_code, sighash_type);
  append_le(preimage, static_cast<uint32_t>(sighash_type));
  return crypto::hash256(preimage);
}

}  // namespace norvel
