// Transactions, their inputs and outputs, and their one byte format: the bytes
// are hashed for the transaction id, stored in blocks and sent to peers.
//
// Caches: get_txid() keeps its result and hold_bytes() keeps the byte form.
// Fields are public; whoever changes one after either call also calls
// invalidate_cache(). Every signer of this class does so itself.
//
// Errors: deserializers throw std::runtime_error and leave no partial object;
// constructors that take an error text return nullopt with the reason in it.
// Threads: plain values. get_txid() and hold_bytes() write caches, so even a
// const Transaction must not be shared before they were called once.

#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "core/transaction_verification.h"
#include "core/uint256.h"
#include "crypto/encrypted_message.h"

namespace norvel {

class Script;

// Base units of one coin.
inline constexpr int64_t kCoin = 100'000'000;

inline constexpr uint32_t kSequenceFinal = 0xffffffff;

// Lock times below are block heights, from here on seconds since the Unix epoch.
inline constexpr uint32_t kLockTimeThreshold = 500'000'000;

// A reference to an output of an earlier transaction.
//
//   txid   32  byte 0 first
//   index   4  little-endian
struct OutPoint {
  static constexpr size_t kSize = uint256::kSize + 4;
  static constexpr uint32_t kNullIndex = 0xffffffff;

  uint256 txid;
  uint32_t index = 0;

  // The outpoint of a coinbase input: zero id, index 0xffffffff.
  static OutPoint null() { return {uint256(), kNullIndex}; }
  bool is_null() const { return index == kNullIndex && txid.is_zero(); }

  Bytes serialize() const;
  static OutPoint deserialize(ByteView data, size_t& offset);

  // By txid as a number, then by index.
  auto operator<=>(const OutPoint&) const = default;
  bool operator==(const OutPoint&) const = default;
};

// One spent output and what unlocks it.
//
//   prevout    36  OutPoint
//   length S    2  little-endian; a longer signature is written with its length cut to 16 bits
//   signature   S
//   length P    1  likewise cut to 8 bits
//   pubkey      P
//   sequence    4  little-endian
struct TxIn {
  // A pubkey of these bytes says that the signature field holds a whole
  // unlocking script.
  static constexpr std::array<uint8_t, 4> kHtlcMarker = {'H', 'T', 'L', 'C'};

  OutPoint prevout;
  Bytes signature;  // bare DER, or an unlocking script where pubkey is kHtlcMarker
  Bytes pubkey;
  uint32_t sequence = kSequenceFinal;

  Bytes serialize() const;
  static TxIn deserialize(ByteView data, size_t& offset);
};

// One new output.
//
//   value      8  signed, little-endian, base units
//   script     v  compact-size length, then the locking script
//   flag       1  0: no message; written as 1, any non-zero byte is read as "message follows"
//   length M   2  little-endian; only with a message
//   message    M  EncryptedMessage; only with a message
struct TxOut {
  int64_t value = 0;    // base units
  Bytes pubkey_hash;    // 20 bytes, or empty
  Bytes script_pubkey;  // may be empty
  std::optional<crypto::EncryptedMessage> message;

  TxOut() = default;
  TxOut(int64_t value_units, Bytes payee_hash) : value(value_units), pubkey_hash(std::move(payee_hash)) {}

  // The locking script that this output stands for: script_pubkey when it is
  // not empty, else the P2PKH script of a 20-byte pubkey_hash, else nothing.
  Bytes locking_script() const;

  // pubkey_hash, or when that is empty the hash that script_pubkey pays; empty
  // for other scripts.
  Bytes get_pubkey_hash() const;

  // 0 without a message, else 10,100 + 100 a byte of ciphertext, nonce and
  // ephemeral key, in base units.
  int64_t calculate_message_fee() const;

  Bytes serialize() const;
  static TxOut deserialize(ByteView data, size_t& offset);

  // Appends what serialize() returns.
  void serialize_into(Bytes& out) const;
};

// Stored and hashed; never renumbered. Any byte can be read from the wire.
enum class TransactionType : uint8_t {
  TRANSFER = 1,
  MESSAGE = 2,
  TREASURY_DISTRIBUTION = 3,
  HTLC_FUNDING = 4,
  COINBASE = 255,
};

using SpendableOutputs = std::vector<std::pair<OutPoint, TxOut>>;

//   type          1
//   version       4  little-endian
//   timestamp     8  little-endian, seconds since the Unix epoch
//   input count   2  little-endian; more than 65,535 are written with the count cut to 16 bits
//   inputs        v  TxIn each
//   output count  2  likewise
//   outputs       v  TxOut each
//   locktime      4  little-endian
class Transaction {
 public:
  TransactionType type = TransactionType::TRANSFER;
  uint32_t version = 1;
  uint64_t timestamp = 0;
  std::vector<TxIn> inputs;
  std::vector<TxOut> outputs;
  uint32_t locktime = 0;

  Bytes serialize() const;

  // Reads one transaction from the start of `data`; bytes after its locktime
  // are ignored.
  static Transaction deserialize(ByteView data);

  // Neither a coinbase nor a treasury distribution: all that it pays comes from its inputs.
  bool is_ordinary() const {
    return type != TransactionType::COINBASE && type != TransactionType::TREASURY_DISTRIBUTION;
  }

  // Double SHA-256 of serialize(), cached.
  uint256 get_txid() const;

  // Length of serialize(); O(1) after hold_bytes().
  size_t size() const;

  // Keeps serialize() for size(), at the cost of that memory.
  void hold_bytes() const;

  // Forgets the cached id and byte form; for callers that changed a field.
  void invalidate_cache();

  // Sum of all output values, wrapping modulo 2^64; no sign check.
  int64_t total_output_value() const;

  // What a signature of input `input_index` commits to when it satisfies
  // `script_code`, type 1. Throws std::runtime_error ("Input index out of
  // range").
  uint256 get_signature_hash(size_t input_index, const Script& script_code) const;

  // The plaintexts of the outputs that carry a message, in output order; empty
  // text for one that is not meant for this key. Throws what
  // crypto::decrypt_message throws for a malformed one.
  std::vector<std::string> decrypt_messages(const Bytes& private_key) const;

  // A coinbase: one null input whose signature is the height (4 bytes,
  // little-endian) and `message`; `reward` to `miner_address`, and half of
  // `fees` to the treasury when they reach 20,000 base units. The timestamp is
  // the clock's, at height 0 a fixed one. A message of more than 65,531 bytes
  // does not fit the byte format. Throws std::runtime_error for an address that
  // does not decode.
  static Transaction create_coinbase_tx(const std::string& miner_address, int64_t reward, int64_t fees, uint32_t height,
                                        const std::string& message);

  // A signed payment of `amount` to `destination`, from `spendable` largest
  // value first until amount and fee are covered. Change returns to the
  // sender's own address; change below kDustUnits joins the fee. A non-empty
  // `message` is encrypted to `recipient_pubkey` and rides on output 0. The
  // keys of this and the following constructors must belong together; that
  // `spendable` can be spent with them is the caller's word.
  static std::optional<Transaction> create_standard_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                       const std::string& destination, int64_t amount,
                                                       const SpendableOutputs& spendable, int64_t fee,
                                                       const std::string& message, const Bytes& recipient_pubkey,
                                                       std::string& error);

  // A signed note of type 2: output 0 pays nothing to `destination` and carries
  // `message`; the fee input's value less `fee` returns to the sender. Without
  // `recipient_pubkey` a note can only go to the sender's own address.
  static std::optional<Transaction> create_message_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                      const std::string& destination, const std::string& message,
                                                      const OutPoint& fee_input, int64_t fee_input_value, int64_t fee,
                                                      std::string& error, const Bytes& recipient_pubkey = {});

  // A signed transaction of type 4 that locks `amount` in a hash-time-locked
  // contract as output 0: claimable with the preimage of `payment_hash`
  // (single SHA-256) by the recipient, refundable to the sender's key from
  // `lock_time` on, which is at most 0x7fffffff. Inputs and change as
  // create_standard_tx.
  static std::optional<Transaction> create_htlc_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                   int64_t amount, const Bytes& recipient_pkh,
                                                   const Bytes& payment_hash, uint32_t lock_time,
                                                   const SpendableOutputs& spendable, int64_t fee, std::string& error);

  // Spends a contract to the signer's own address, less kHtlcSpendFeeUnits. Of
  // `htlc_output` only the value is checked; a preimage may have up to about
  // 65,000 bytes.
  static std::optional<Transaction> create_htlc_claim_tx(const Bytes& private_key, const Bytes& pubkey,
                                                         const OutPoint& htlc_outpoint, const TxOut& htlc_output,
                                                         const Bytes& preimage, std::string& error);
  static std::optional<Transaction> create_htlc_refund_tx(const Bytes& private_key, const Bytes& pubkey,
                                                          const OutPoint& htlc_outpoint, const TxOut& htlc_output,
                                                          uint32_t lock_time, std::string& error);

  // Signers: each fills the input's signature and pubkey and forgets the cached
  // id. They throw std::runtime_error for an index out of range (the input is
  // then unchanged) and what crypto::sign_message throws for a bad key.
  void sign_input(size_t input_index, const Bytes& private_key, const Script& script_code);
  void sign_htlc_input_claim(size_t input_index, const Bytes& private_key, const Script& htlc_script,
                             const Bytes& preimage);
  void sign_htlc_input_refund(size_t input_index, const Bytes& private_key, const Script& htlc_script);

  // True when every input finds its output in `spent` and verifies against it.
  // Prints the first failure to standard error.
  bool verify_all_signatures(const std::map<OutPoint, TxOut>& spent) const;

  // The same with `verify` deciding each input.
  bool verify_all_signatures(const std::map<OutPoint, TxOut>& spent, const InputVerifier& verify) const;

 private:
  mutable std::optional<uint256> cached_txid_;
  mutable std::optional<Bytes> cached_bytes_;
};

// Change smaller than this is not worth an output and joins the fee.
inline constexpr int64_t kDustUnits = 1'000;

// Fee of an HTLC claim or refund.
inline constexpr int64_t kHtlcSpendFeeUnits = 10'000;

// Longest note, in bytes.
inline constexpr size_t kMessageBytesMax = 1'024;

// Fees from which on a coinbase shares them with the treasury.
inline constexpr int64_t kTreasuryFeesMin = 20'000;

}  // namespace norvel
