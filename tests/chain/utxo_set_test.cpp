#include "chain/utxo_set.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <limits>
#include <map>
#include <random>
#include <thread>

#include "core/file_io.h"
#include "crypto/hex.h"
#include "script/script.h"
#include "support/byte_strings.h"
#include "support/chain_builder.h"

namespace norvel {
namespace {

// Outputs by id text and index, as bytes: what a set holds, for comparison.
using Model = std::map<std::pair<std::string, uint32_t>, Bytes>;

Model contents(const UTXOSet& set) {
  Model model;
  for (const auto& [outpoint, output] : set.get_all()) {
    model[{outpoint.txid.to_hex(), outpoint.index}] = output.serialize();
  }
  EXPECT_EQ(model.size(), set.size());
  return model;
}

TEST(UTXOSet, AgreesWithAPlainMapOnARandomWalk) {
  std::mt19937_64 random(8);
  const auto outpoint = [&] { return OutPoint{uint256(random() % 4), static_cast<uint32_t>(random() % 4)}; };
  const auto key = [](const OutPoint& at) { return std::pair(at.txid.to_hex(), at.index); };
  std::vector<Transaction> known;
  for (int i = 0; i < 12; ++i) {
    known.push_back(random_transaction(random));
    for (TxIn& input : known.back().inputs) {
      input.prevout = i % 2 == 0 ? outpoint() : OutPoint{known[0].get_txid(), 0};
    }
  }
  UTXOSet set;
  set.add_utxo(OutPoint::null(), TxOut(1, {}));  // no input can spend it
  known[0].inputs.emplace_back().prevout = OutPoint::null();
  Model model = contents(set);
  for (int step = 0; step < 3'000; ++step) {
    const OutPoint at = outpoint();
    const Transaction& tx = known[random() % known.size()];
    const auto choice = random() % 6;
    if (choice == 0) {
      set.remove_utxo(at);
      model.erase(key(at));
    } else if (choice == 1) {
      set.apply_transaction(tx);
      for (const TxIn& input : tx.inputs) {
        if (!input.prevout.is_null()) {
          model.erase(key(input.prevout));
        }
      }
      for (uint32_t i = 0; i < tx.outputs.size(); ++i) {
        model[key({tx.get_txid(), i})] = tx.outputs[i].serialize();
      }
    } else if (choice == 2) {
      set.unapply_transaction(tx);
      for (uint32_t i = 0; i < tx.outputs.size(); ++i) {
        model.erase(key({tx.get_txid(), i}));
      }
    } else {
      const TxOut output = random_output(random);
      set.add_utxo(at, output);
      model[key(at)] = output.serialize();
    }
    const OutPoint asked = outpoint();
    const bool held = model.contains(key(asked));
    ASSERT_EQ(set.has_utxo(asked), held);
    ASSERT_EQ(set.get_utxo(asked).value_or(TxOut()).serialize(), held ? model[key(asked)] : TxOut().serialize());
    if (step % 50 == 0) {
      ASSERT_EQ(contents(set), model);
    }
  }
}

TEST(UTXOSet, BalancesGoByThePaidHash) {
  const Bytes hash(20, 7);
  TxOut by_script(30, {});
  by_script.script_pubkey = Script::create_p2pkh_output(hash).bytes;
  TxOut contract(400, {});
  contract.script_pubkey = Script::create_htlc_output(hash, hash, Bytes(32), 1).bytes;
  UTXOSet set;
  for (const TxOut& output : {TxOut(1, hash), TxOut(2, Bytes(20, 8)), by_script, contract}) {
    set.add_utxo({uint256(), static_cast<uint32_t>(set.size())}, output);
  }
  EXPECT_EQ(set.get_balance(hash), 31);
  EXPECT_EQ(set.get_balance({}), 400);  // outputs that pay no hash
  const auto matches = set.get_utxos_for_address(hash);
  ASSERT_EQ(matches.size(), 2u);
  EXPECT_EQ(matches[1].first.index, 2u);
  set.add_utxo({uint256(), 9}, TxOut(std::numeric_limits<int64_t>::max(), hash));
  EXPECT_EQ(set.get_balance(hash), std::numeric_limits<int64_t>::min() + 30);
}

TEST(UTXOSet, MayBeReadWhileItChanges) {
  UTXOSet set;
  Transaction tx;
  tx.inputs.resize(1);
  tx.outputs.emplace_back(5, Bytes(20, 1));
  tx.get_txid();  // fills the cache before the transaction is shared
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      const int64_t balance = set.get_balance(Bytes(20, 1));
      EXPECT_TRUE(balance == 0 || balance == 5);
      EXPECT_LE(set.get_all().size(), 1u);
    }
  });
  for (int i = 0; i < 500; ++i) {
    set.apply_transaction(tx);
    set.unapply_transaction(tx);
  }
  done = true;
  reader.join();
  EXPECT_EQ(set.size(), 0u);
}

class UTXOSetFile : public testing::Test {
 protected:
  UTXOSetFile() { set_.add_utxo({uint256(uint64_t{9}), 1}, TxOut(5, {})); }

  void write(const Bytes& bytes) const { ASSERT_TRUE(replace_file(path_, bytes)); }
  Bytes read() const { return read_whole_file(path_, 1 << 30).value(); }

  // The file is refused, and what the set held is kept only where none was opened.
  void expect_refused(const std::string& path, bool is_kept = false) {
    set_.add_utxo({uint256(uint64_t{9}), 9}, TxOut(9, {}));
    EXPECT_FALSE(set_.load_from_file(path));
    EXPECT_EQ(set_.size() != 0, is_kept);
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "utxos";
  UTXOSet set_;
};

TEST_F(UTXOSetFile, HasTheStatedLayoutAndRestoresWhatWasSaved) {
  ASSERT_TRUE(set_.save_to_file(path_));
  EXPECT_EQ(crypto::bytes_to_hex(read()),
            "010000002400000009" + std::string(62, '0') + "010000000a00000005000000000000000000");
  std::mt19937_64 random(9);
  for (int i = 0; i < 300; ++i) {
    set_.add_utxo({random_uint256(random), static_cast<uint32_t>(random())}, random_output(random));
  }
  ASSERT_TRUE(set_.save_to_file(path_));
  UTXOSet loaded;
  ASSERT_TRUE(loaded.load_from_file(path_));
  EXPECT_EQ(contents(loaded), contents(set_));
  ASSERT_TRUE(UTXOSet().save_to_file(path_));  // shorter than the file that stands there
  ASSERT_TRUE(loaded.load_from_file(path_));
  EXPECT_EQ(loaded.size(), 0u);
}

TEST_F(UTXOSetFile, RefusesWhatIsNotWhole) {
  ASSERT_TRUE(set_.save_to_file(path_));
  const Bytes whole = read();
  for (size_t len = 0; len < whole.size(); ++len) {
    SCOPED_TRACE(len);
    write(cut(whole, len));
    expect_refused(path_);
  }
  // Counts and lengths one off, and ones that no file can hold.
  for (const auto& [at, value] : {std::pair(0, 0), {3, 1}, {4, 35}, {4, 37}, {44, 9}, {47, 0xff}}) {
    SCOPED_TRACE(at);
    Bytes bytes = whole;
    bytes[static_cast<size_t>(at)] = static_cast<uint8_t>(value);
    write(bytes);
    expect_refused(path_);
  }
  Bytes longer = join({whole, {0}});
  write(longer);
  expect_refused(path_);
  ++longer[44];  // the output's length now covers the extra byte
  write(longer);
  expect_refused(path_);
}

TEST_F(UTXOSetFile, ReportsWhatCannotBeOpenedOrWritten) {
  EXPECT_FALSE(set_.save_to_file(directory_.path()));
  EXPECT_FALSE(set_.save_to_file("/dev/full"));
  expect_refused(directory_.path(), true);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  expect_refused(path_, true);  // would otherwise wait for a writer
}

}  // namespace
}  // namespace norvel
