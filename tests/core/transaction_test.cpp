// The byte formats of transactions and their parts, and the cached values.

#include "core/transaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <string>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "script/script.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kNoData[] = "Not enough data";
constexpr const char kCutId[] = "Not enough bytes to deserialize uint256";
constexpr const char kCutIndex[] = "Not enough data for OutPoint index";
constexpr const char kCutSequence[] = "Not enough data for sequence";
constexpr const char kCutValue[] = "Not enough data for TxOut value";
constexpr const char kNoScript[] = "Invalid script data: offset out of range";
constexpr const char kCutScript[] = "Invalid script data: insufficient bytes";
constexpr const char kCutFlag[] = "Not enough data for message flag";
constexpr const char kCutNote[] = "Not enough data for message";

// A transaction with two inputs and three outputs, field by field.
const FormatField kRichFields[] = {
    {"02", kNoData},
    {"04030201", "Not enough data for version"},
    {"1817161514131211", "Not enough data for timestamp"},
    {"0200", kNoData},
    // Input 0: signature and key.
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", kCutId},
    {"24232221", kCutIndex},
    {"0500", kNoData},
    {"3044020155", "Not enough data for signature"},
    {"03", kNoData},
    {"02aabb", "Not enough data for pubkey"},
    {"fdffffff", kCutSequence},
    // Input 1: neither.
    {"ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff", kCutId},
    {"00000000", kCutIndex},
    {"0000", kNoData},
    {"00", kNoData},
    {"01000000", kCutSequence},
    {"0300", kNoData},
    // Output 0: payment by hash.
    {"00e1f50500000000", kCutValue},
    {"19", kNoScript},
    {"76a914a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b388ac", kCutScript},
    {"00", kCutFlag},
    // Output 1: minus one, no script, a note of version 1.
    {"ffffffffffffffff", kCutValue},
    {"00", kNoScript},
    {"01", kCutFlag},
    {"3500", "Not enough data for message length"},
    {"0100000003c1c2c3", kCutNote},
    {"e0e1e2e3e4e5e6e7e8e9eaeb", kCutNote},
    {"020303030303030303030303030303030303030303030303030303030303030303", kCutNote},
    // Output 2: a script of 253 bytes, the shortest with a longer length.
    {"0100000000000000", kCutValue},
    {"fd", kNoScript},
    {"fd00", "Invalid script length encoding"},
    {std::string(2 * 253, '5'), kCutScript},
    {"00", kCutFlag},
    {"34333231", "Not enough data for locktime"},
};

TEST(TransactionFormat, ReadsAndWritesFieldByField) {
  Bytes bytes = join_fields(kRichFields);
  const size_t size = bytes.size();
  bytes.push_back(0x77);  // ignored
  const Transaction tx = Transaction::deserialize(bytes);
  bytes.pop_back();
  EXPECT_EQ(tx.serialize(), bytes);
  EXPECT_EQ(tx.size(), size);
  EXPECT_EQ(tx.get_txid(), crypto::hash256(bytes));
  EXPECT_EQ(tx.type, TransactionType::MESSAGE);
  EXPECT_EQ(tx.version, 0x01020304u);
  EXPECT_EQ(tx.timestamp, 0x1112131415161718u);
  EXPECT_EQ(tx.locktime, 0x31323334u);
  ASSERT_EQ(tx.inputs.size(), 2u);
  EXPECT_EQ(tx.inputs[0].prevout.txid.bytes()[1], 0x01);
  EXPECT_EQ(tx.inputs[0].prevout.index, 0x21222324u);
  EXPECT_EQ(tx.inputs[0].signature, (Bytes{0x30, 0x44, 0x02, 0x01, 0x55}));
  EXPECT_EQ(tx.inputs[0].pubkey, (Bytes{0x02, 0xaa, 0xbb}));
  EXPECT_EQ(tx.inputs[0].sequence, 0xfffffffdu);
  ASSERT_EQ(tx.outputs.size(), 3u);
  EXPECT_EQ(tx.outputs[0].value, 100'000'000);
  EXPECT_EQ(crypto::bytes_to_hex(tx.outputs[0].pubkey_hash), "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3");
  EXPECT_EQ(tx.outputs[1].value, -1);
  EXPECT_EQ(tx.outputs[1].message.value().ciphertext, (Bytes{0xc1, 0xc2, 0xc3}));
  EXPECT_EQ(tx.outputs[2].get_pubkey_hash(), Bytes());
  EXPECT_EQ(crypto::bytes_to_hex(Transaction().serialize()), "010100000000000000000000000000000000000000");
}

TEST(TransactionFormat, ChoosesTheLockingScript) {
  const Bytes hash(20, 0xaa);
  TxOut output(0, hash);
  EXPECT_EQ(output.serialize().size(), 8 + 1 + 25u + 1);
  EXPECT_EQ(output.locking_script(), Script::create_p2pkh_output(hash).bytes);
  output.pubkey_hash.pop_back();
  EXPECT_EQ(crypto::bytes_to_hex(output.serialize()), "00000000000000000000");
  output = TxOut(0, hash);
  output.script_pubkey = {0x51};  // goes before the hash
  EXPECT_EQ(crypto::bytes_to_hex(output.serialize()), "0000000000000000015100");
  EXPECT_EQ(output.locking_script(), Bytes{0x51});
}

TEST(TransactionFormat, EachCutNamesTheFieldItEndsIn) {
  expect_cut_messages(kRichFields, [](ByteView data) { Transaction::deserialize(data); });
}

TEST(TransactionFormat, OtherSpellingsOfAnOutputBecomeTheCanonicalOne) {
  const std::string note = "0100000000" + std::string(24, 'e') + std::string(66, '3');
  const struct {
    const char* label;
    std::string hex;
    std::string canonical;
  } rows[] = {
      {"script length in three bytes", "0000000000000000fd01005100", "0000000000000000015100"},
      {"script length in five bytes", "0000000000000000fe010000005100", "0000000000000000015100"},
      {"script length in nine bytes", "0000000000000000ff01000000000000005100", "0000000000000000015100"},
      {"message flag 2", "000000000000000000023200" + note, "000000000000000000013200" + note},
      {"message flag 255", "000000000000000000ff3200" + note, "000000000000000000013200" + note},
      {"note longer than its content", "000000000000000000013400" + note + "aabb", "000000000000000000013200" + note},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Bytes bytes = crypto::hex_to_bytes(row.hex);
    size_t offset = 0;
    EXPECT_EQ(crypto::bytes_to_hex(TxOut::deserialize(bytes, offset).serialize()), row.canonical);
    EXPECT_EQ(offset, bytes.size());
  }
}

// Returns `bytes` with some of them changed, inserted or cut off.
Bytes spoil(Bytes bytes, std::mt19937_64& random) {
  for (auto changes = random() % 4; changes > 0; --changes) {
    const size_t at = random() % bytes.size();
    const auto byte = static_cast<uint8_t>(random());
    switch (random() % 3) {
      case 0:
        bytes[at] = byte;
        break;
      case 1:
        bytes.insert(bytes.begin() + static_cast<ptrdiff_t>(at), byte);
        break;
      default:
        bytes.resize(at + 1);
    }
  }
  return bytes;
}

TEST(TransactionFormat, WhateverIsAcceptedIsAFixedPoint) {
  std::mt19937_64 random(3);
  int accepted = 0;
  for (int i = 0; i < 5'000; ++i) {
    const Bytes bytes = random_transaction(random).serialize();
    ASSERT_EQ(Transaction::deserialize(bytes).serialize(), bytes);
    std::optional<Bytes> once;
    runtime_error_of([&] { once = Transaction::deserialize(spoil(bytes, random)).serialize(); });
    if (once) {
      ++accepted;
      ASSERT_EQ(Transaction::deserialize(*once).serialize(), *once);
    }
  }
  EXPECT_GT(accepted, 1'500);
}

// The counts and lengths are cut to their width, and writing still ends.
TEST(TransactionFormat, WritesMoreThanItsCountsCanHold) {
  Transaction tx;
  tx.inputs.resize(65'536);
  tx.outputs.resize(65'537);
  const Bytes bytes = tx.serialize();
  EXPECT_EQ(bytes.size(), 21 + 65'536u * 43 + 65'537u * 10);
  EXPECT_EQ(bytes[13], 0);
  EXPECT_EQ(bytes[14], 0);
  const size_t output_count_at = 15 + 65'536u * 43;
  EXPECT_EQ(bytes[output_count_at], 1);
  EXPECT_EQ(bytes[output_count_at + 1], 0);

  tx.inputs.resize(65'535);
  tx.outputs.resize(65'535);
  EXPECT_EQ(Transaction::deserialize(tx.serialize()).serialize(), tx.serialize());

  TxIn input;
  input.signature.assign(65'537, 0xaa);
  input.pubkey.assign(258, 0xbb);
  const Bytes long_fields = input.serialize();
  EXPECT_EQ(long_fields.size(), 36u + 2 + 65'537 + 1 + 258 + 4);
  EXPECT_EQ(long_fields[36], 1);
  EXPECT_EQ(long_fields[37], 0);
  EXPECT_EQ(long_fields[38 + 65'537], 2);
}

TEST(OutPointOrder, GoesByIdAsANumberThenByIndex) {
  const OutPoint ordered[] = {
      {uint256(), 0},
      {uint256(), OutPoint::kNullIndex},
      {uint256(uint64_t{0xff}), 0},
      {uint256(uint64_t{0x100}), 0},
      {uint256(uint64_t{0x100}), 1},
      {uint256(uint64_t{1}) << 255, 0},
  };
  EXPECT_TRUE(std::is_sorted(std::begin(ordered), std::end(ordered), std::less_equal<>()));
  EXPECT_FALSE(ordered[0].is_null());
  EXPECT_TRUE(ordered[1].is_null());
}

TEST(TransactionValues, MessageFeeAndTotals) {
  TxOut output(5, {});
  EXPECT_EQ(output.calculate_message_fee(), 0);
  output.message = {1, Bytes(100), Bytes(12), Bytes(33)};
  EXPECT_EQ(output.calculate_message_fee(), 24'600);

  Transaction tx;
  EXPECT_EQ(tx.total_output_value(), 0);
  tx.outputs = {TxOut(std::numeric_limits<int64_t>::max(), {}), TxOut(1, {}), TxOut(-7, {})};
  EXPECT_EQ(tx.total_output_value(), std::numeric_limits<int64_t>::max() - 6);
  tx.outputs.pop_back();
  EXPECT_EQ(tx.total_output_value(), std::numeric_limits<int64_t>::min());
}

TEST(TransactionCache, IsKeptUntilInvalidatedOrSigned) {
  const SampleKey key = sample_key(1);
  const Script script = Script::create_p2pkh_output(key.pubkey_hash);
  Transaction tx = Transaction::deserialize(join_fields(kRichFields));
  tx.hold_bytes();
  const size_t held = tx.size();
  const uint256 old_id = tx.get_txid();
  tx.outputs[2].script_pubkey.clear();
  EXPECT_EQ(tx.size(), held);
  EXPECT_EQ(tx.get_txid(), old_id);

  const auto expect_fresh = [&](const char* label) {
    EXPECT_EQ(tx.size(), tx.serialize().size()) << label;
    EXPECT_EQ(tx.get_txid(), crypto::hash256(tx.serialize())) << label;
    tx.hold_bytes();
    tx.inputs[1].signature.push_back(0);  // every cached value is stale from here on
  };
  tx.invalidate_cache();
  expect_fresh("invalidated");
  tx.sign_input(0, key.private_key, script);
  expect_fresh("signed");
  tx.sign_htlc_input_claim(0, key.private_key, script, {1});
  expect_fresh("claimed");
  tx.sign_htlc_input_refund(0, key.private_key, script);
  expect_fresh("refunded");
}

}  // namespace
}  // namespace norvel
