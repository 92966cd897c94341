#include "core/transaction.h"

#include <gtest/gtest.h>

#include <string>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "script/script.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr const char kCutShort[] = "Not enough data";
constexpr const char kCutValue[] = "Not enough data for TxOut value";
constexpr const char kNoScript[] = "Invalid script data: offset out of range";
constexpr const char kCutScript[] = "Invalid script data: insufficient bytes";
constexpr const char kCutFlag[] = "Not enough data for message flag";
constexpr const char kCutNote[] = "Not enough data for message";

const FormatField kRichFields[] = {
    {"02", kCutShort},
    {"04030201", "Not enough data for version"},
    {"1817161514131211", "Not enough data for timestamp"},
    {"0100", kCutShort},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "Not enough bytes to deserialize uint256"},
    {"24232221", "Not enough data for OutPoint index"},
    {"0500", kCutShort},
    {"3044020155", "Not enough data for signature"},
    {"03", kCutShort},
    {"02aabb", "Not enough data for pubkey"},
    {"fdffffff", "Not enough data for sequence"},
    {"0300", kCutShort},
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
  bytes.push_back(0x77);  // ignored
  const Transaction tx = Transaction::deserialize(bytes);
  bytes.pop_back();
  EXPECT_EQ(tx.serialize(), bytes);
  EXPECT_EQ(tx.get_txid(), crypto::hash256(bytes));
  EXPECT_EQ(tx.type, TransactionType::MESSAGE);
  EXPECT_EQ(tx.version, 0x01020304u);
  EXPECT_EQ(tx.timestamp, 0x1112131415161718u);
  EXPECT_EQ(tx.locktime, 0x31323334u);
  EXPECT_EQ(tx.inputs.at(0).prevout.index, 0x21222324u);
  EXPECT_EQ(tx.inputs[0].pubkey, (Bytes{0x02, 0xaa, 0xbb}));
  EXPECT_EQ(tx.inputs[0].sequence, 0xfffffffdu);
  EXPECT_EQ(tx.outputs.at(0).value, 100'000'000);
  EXPECT_EQ(crypto::bytes_to_hex(tx.outputs[0].pubkey_hash), "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3");
  EXPECT_EQ(tx.outputs.at(1).message.value().ciphertext, (Bytes{0xc1, 0xc2, 0xc3}));
  EXPECT_EQ(crypto::bytes_to_hex(Transaction().serialize()), "010100000000000000000000000000000000000000");
  expect_cut_messages(kRichFields, [](ByteView data) { Transaction::deserialize(data); });
}

TEST(TransactionFormat, ChoosesTheLockingScript) {
  TxOut output(0, Bytes(20, 0xaa));
  EXPECT_EQ(output.locking_script(), Script::create_p2pkh_output(output.pubkey_hash).bytes);
  output.script_pubkey = {0x51};  // goes before the hash
  EXPECT_EQ(crypto::bytes_to_hex(output.serialize()), "0000000000000000015100");
  EXPECT_EQ(crypto::bytes_to_hex(TxOut(0, Bytes(19, 0xaa)).serialize()), "00000000000000000000");
}

// The counts and lengths are cut to their width, and writing still ends.
TEST(TransactionFormat, WritesMoreThanItsCountsCanHold) {
  Transaction tx;
  tx.inputs.resize(65'536);
  tx.outputs.resize(65'537);
  tx.inputs[0].signature.assign(65'537, 0xaa);
  tx.inputs[0].pubkey.assign(258, 0xbb);
  const Bytes bytes = tx.serialize();
  EXPECT_EQ(bytes.size(), 21 + 65'536u * 43 + 65'537 + 258 + 65'537u * 10);
  EXPECT_EQ(bytes[13] | bytes[14], 0);
  EXPECT_EQ(bytes[15 + 36], 1);
  EXPECT_EQ(bytes[15 + 38 + 65'537], 2);
}

TEST(TransactionCache, IsKeptUntilInvalidatedOrSigned) {
  const Bytes key(32, 1);
  Transaction tx = Transaction::deserialize(join_fields(kRichFields));
  tx.hold_bytes();
  const uint256 old_id = tx.get_txid();
  tx.outputs[2].script_pubkey.clear();
  EXPECT_EQ(tx.get_txid(), old_id);
  const auto expect_fresh = [&](const char* label) {
    EXPECT_EQ(tx.size(), tx.serialize().size()) << label;
    EXPECT_EQ(tx.get_txid(), crypto::hash256(tx.serialize())) << label;
    tx.hold_bytes();
    tx.outputs[2].script_pubkey.push_back(0);  // every cached value is stale from here on
  };
  tx.invalidate_cache();
  expect_fresh("invalidated");
  tx.sign_input(0, key, Script());
  expect_fresh("signed");
  tx.sign_htlc_input_claim(0, key, Script(), {1});
  expect_fresh("claimed");
  tx.sign_htlc_input_refund(0, key, Script());
  expect_fresh("refunded");
}

}  // namespace
}  // namespace norvel
