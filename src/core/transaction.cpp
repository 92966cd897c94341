#include "core/transaction.h"

#include <algorithm>

#include "crypto/hash.h"
#include "script/compact_size.h"
#include "script/script.h"

namespace norvel {

namespace {

constexpr int64_t kMessageFeeBase = 10'100;
constexpr int64_t kMessageFeePerByte = 100;
constexpr size_t kPubkeyHashSize = 20;

// Least bytes that an input or an output takes up, which bounds what a count
// read from outside may reserve.
constexpr size_t kTxInSizeMin = OutPoint::kSize + 2 + 1 + 4;
constexpr size_t kTxOutSizeMin = 8 + 1 + 1;

template <class Element, Element (*kRead)(ByteView, size_t&)>
std::vector<Element> read_list(ByteView data, size_t& offset, size_t element_size_min) {
  const auto count = read_le<uint16_t>(data, offset);
  std::vector<Element> list;
  list.reserve(std::min<size_t>(count, (data.size() - offset) / element_size_min));
  for (uint16_t i = 0; i < count; ++i) {
    list.push_back(kRead(data, offset));
  }
  return list;
}

Bytes copy(ByteView bytes) {
  return Bytes(bytes.begin(), bytes.end());
}

}  // namespace

Bytes OutPoint::serialize() const {
  Bytes out;
  out.reserve(kSize);
  append(out, txid.bytes());
  append_le(out, index);
  return out;
}

OutPoint OutPoint::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  OutPoint outpoint;
  outpoint.txid = uint256::deserialize(data, at);
  outpoint.index = read_le<uint32_t>(data, at, "Not enough data for OutPoint index");
  offset = at;
  return outpoint;
}

Bytes TxIn::serialize() const {
  Bytes out = prevout.serialize();
  out.reserve(kTxInSizeMin + signature.size() + pubkey.size());
  append_le(out, static_cast<uint16_t>(signature.size()));
  append(out, signature);
  append_le(out, static_cast<uint8_t>(pubkey.size()));
  append(out, pubkey);
  append_le(out, sequence);
  return out;
}

TxIn TxIn::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  TxIn input;
  input.prevout = OutPoint::deserialize(data, at);
  const auto signature_len = read_le<uint16_t>(data, at);
  input.signature = copy(take(data, at, signature_len, "Not enough data for signature"));
  const auto pubkey_len = read_le<uint8_t>(data, at);
  input.pubkey = copy(take(data, at, pubkey_len, "Not enough data for pubkey"));
  input.sequence = read_le<uint32_t>(data, at, "Not enough data for sequence");
  offset = at;
  return input;
}

Bytes TxOut::locking_script() const {
  if (!script_pubkey.empty() || pubkey_hash.size() != kPubkeyHashSize) {
    return script_pubkey;
  }
  return Script::create_p2pkh_output(pubkey_hash).bytes;
}

Bytes TxOut::get_pubkey_hash() const {
  return pubkey_hash.empty() ? Script::extract_pubkey_hash(script_pubkey) : pubkey_hash;
}

int64_t TxOut::calculate_message_fee() const {
  if (!message) {
    return 0;
  }
  const size_t bytes = message->ciphertext.size() + message->nonce.size() + message->ephemeral_pubkey.size();
  return kMessageFeeBase + kMessageFeePerByte * static_cast<int64_t>(bytes);
}

void TxOut::serialize_into(Bytes& out) const {
  append_le(out, static_cast<uint64_t>(value));
  const Bytes made = script_pubkey.empty() ? locking_script() : Bytes();
  const Bytes& script = script_pubkey.empty() ? made : script_pubkey;
  append_compact_size(out, script.size());
  append(out, script);
  out.push_back(message ? 1 : 0);
  if (message) {
    const Bytes note = message->serialize();
    append_le(out, static_cast<uint16_t>(note.size()));
    append(out, note);
  }
}

Bytes TxOut::serialize() const {
  Bytes out;
  serialize_into(out);
  return out;
}

TxOut TxOut::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  TxOut output;
  output.value = static_cast<int64_t>(read_le<uint64_t>(data, at, "Not enough data for TxOut value"));
  Script script = Script::deserialize(data, at);
  output.pubkey_hash = script.extract_pubkey_hash();
  output.script_pubkey = std::move(script.bytes);
  const auto flag = read_le<uint8_t>(data, at, "Not enough data for message flag");
  if (flag != 0) {
    const auto note_len = read_le<uint16_t>(data, at, "Not enough data for message length");
    const ByteView note = take(data, at, note_len, "Not enough data for message");
    size_t note_offset = 0;
    output.message = crypto::EncryptedMessage::deserialize(note, note_offset);
  }
  offset = at;
  return output;
}

Bytes Transaction::serialize() const {
  Bytes out;
  append_le(out, static_cast<uint8_t>(type));
  append_le(out, version);
  append_le(out, timestamp);
  append_le(out, static_cast<uint16_t>(inputs.size()));
  for (const TxIn& input : inputs) {
    append(out, input.serialize());
  }
  append_le(out, static_cast<uint16_t>(outputs.size()));
  for (const TxOut& output : outputs) {
    output.serialize_into(out);
  }
  append_le(out, locktime);
  return out;
}

Transaction Transaction::deserialize(ByteView data) {
  size_t at = 0;
  Transaction tx;
  tx.type = static_cast<TransactionType>(read_le<uint8_t>(data, at));
  tx.version = read_le<uint32_t>(data, at, "Not enough data for version");
  tx.timestamp = read_le<uint64_t>(data, at, "Not enough data for timestamp");
  tx.inputs = read_list<TxIn, TxIn::deserialize>(data, at, kTxInSizeMin);
  tx.outputs = read_list<TxOut, TxOut::deserialize>(data, at, kTxOutSizeMin);
  tx.locktime = read_le<uint32_t>(data, at, "Not enough data for locktime");
  return tx;
}

uint256 Transaction::get_txid() const {
  if (!cached_txid_) {
    cached_txid_ = crypto::hash256(cached_bytes_ ? *cached_bytes_ : serialize());
  }
  return *cached_txid_;
}

size_t Transaction::size() const {
  return cached_bytes_ ? cached_bytes_->size() : serialize().size();
}

void Transaction::hold_bytes() const {
  if (!cached_bytes_) {
    cached_bytes_ = serialize();
  }
}

void Transaction::invalidate_cache() {
  cached_txid_.reset();
  cached_bytes_.reset();
}

int64_t Transaction::total_output_value() const {
  uint64_t sum = 0;
  for (const TxOut& output : outputs) {
    sum += static_cast<uint64_t>(output.value);
  }
  return static_cast<int64_t>(sum);
}

std::vector<std::string> Transaction::decrypt_messages(const Bytes& private_key) const {
  std::vector<std::string> plaintexts;
  for (const TxOut& output : outputs) {
    if (output.message) {
      plaintexts.push_back(crypto::decrypt_message(*output.message, private_key));
    }
  }
  return plaintexts;
}

}  // namespace norvel
