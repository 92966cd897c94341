#include "chain/utxo_set.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>

#include "core/transaction_parts.h"
#include "crypto/hex.h"
#include "script/script.h"
#include "support/ledger_samples.h"

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
      // Often an output of an earlier transaction, else one of a few made-up ones.
      const Transaction& earlier = known[random() % known.size()];
      const bool chained = random() % 2 == 0 && &earlier != &known.back();
      input.prevout = chained ? OutPoint{earlier.get_txid(), static_cast<uint32_t>(random() % 3)} : outpoint();
    }
  }
  UTXOSet set;
  Model model;
  for (int step = 0; step < 3'000; ++step) {
    const OutPoint at = outpoint();
    const TxOut output = random_output(random);
    const Transaction& tx = known[random() % known.size()];
    switch (step % 500 == 499 ? 9 : random() % 6) {
      case 9:
        set.clear();
        model.clear();
        break;
      case 0:
        set.remove_utxo(at);
        model.erase(key(at));
        break;
      case 1:
        set.apply_transaction(tx);
        for (const TxIn& input : tx.inputs) {
          model.erase(key(input.prevout));
        }
        for (uint32_t i = 0; i < tx.outputs.size(); ++i) {
          model[key({tx.get_txid(), i})] = tx.outputs[i].serialize();
        }
        break;
      case 2:
        set.unapply_transaction(tx);
        for (uint32_t i = 0; i < tx.outputs.size(); ++i) {
          model.erase(key({tx.get_txid(), i}));
        }
        break;
      default:
        set.add_utxo(at, output);
        model[key(at)] = output.serialize();
    }
    const OutPoint asked = outpoint();
    const auto found = model.find(key(asked));
    const auto got = set.get_utxo(asked);
    ASSERT_EQ(set.has_utxo(asked), found != model.end());
    ASSERT_EQ(got ? got->serialize() : Bytes(), found != model.end() ? found->second : Bytes());
    if (step % 50 == 0) {
      ASSERT_EQ(contents(set), model);
    }
  }
}

TEST(UTXOSet, ApplyingSpendsAndUnapplyingDoesNotRestore) {
  const OutPoint zero_id{uint256(), 3};
  const OutPoint spent{uint256(uint64_t{5}), 1};
  UTXOSet set;
  set.add_utxo(OutPoint::null(), TxOut(1, {}));  // no input can spend it
  set.add_utxo(zero_id, TxOut(2, {}));
  set.add_utxo(spent, TxOut(3, {}));
  Transaction tx;
  tx.inputs.resize(4);
  tx.inputs[0].prevout = OutPoint::null();
  tx.inputs[1].prevout = zero_id;
  tx.inputs[2].prevout = spent;
  tx.inputs[3].prevout = {uint256(uint64_t{6}), 0};  // not in the set
  tx.outputs = {TxOut(10, Bytes(20, 1)), TxOut(20, Bytes(20, 2))};
  tx.outputs[1].message = {1, Bytes(20), Bytes(12), Bytes(33)};

  set.apply_transaction(tx);
  const Model applied = contents(set);
  EXPECT_TRUE(set.has_utxo(OutPoint::null()));
  EXPECT_EQ(applied.size(), 3u);
  EXPECT_TRUE(set.get_utxo({tx.get_txid(), 1})->message);
  set.apply_transaction(tx);
  EXPECT_EQ(contents(set), applied);

  set.unapply_transaction(tx);
  EXPECT_TRUE(set.has_utxo(OutPoint::null()));
  EXPECT_EQ(set.size(), 1u);
}

TEST(UTXOSet, BalancesGoByThePaidHash) {
  const Bytes hash(20, 7);
  UTXOSet set;
  const auto add = [&](const TxOut& output) {
    set.add_utxo({uint256(uint64_t{1}), static_cast<uint32_t>(set.size())}, output);
  };
  TxOut by_script(30, {});
  by_script.script_pubkey = Script::create_p2pkh_output(hash).bytes;
  TxOut contract(400, {});
  contract.script_pubkey = Script::create_htlc_output(hash, hash, Bytes(32), 1).bytes;
  add(TxOut(1, hash));
  add(TxOut(2, Bytes(20, 8)));
  add(by_script);
  add(contract);
  add(TxOut(5'000, {}));
  EXPECT_EQ(set.get_balance(hash), 31);
  EXPECT_EQ(set.get_balance(Bytes(20, 9)), 0);
  EXPECT_EQ(set.get_balance({}), 5'400);  // outputs that pay no hash

  const auto matches = set.get_utxos_for_address(hash);
  ASSERT_EQ(matches.size(), 2u);
  EXPECT_EQ(matches[0].first.index, 0u);
  EXPECT_EQ(matches[1].first.index, 2u);
  EXPECT_EQ(matches[1].second.value, 30);

  add(TxOut(std::numeric_limits<int64_t>::max(), hash));
  EXPECT_EQ(set.get_balance(hash), std::numeric_limits<int64_t>::min() + 30);
}

class UTXOSetFile : public testing::Test {
 protected:
  UTXOSetFile() {
    std::string pattern = (std::filesystem::temp_directory_path() / "norvel-utxo-XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
    path_ = directory_ / "utxos";
    set_.add_utxo({uint256(uint64_t{9}), 1}, TxOut(5, {}));
  }
  ~UTXOSetFile() override { std::filesystem::remove_all(directory_); }

  void write(ByteView bytes) const {
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  Bytes read() const {
    std::ifstream file(path_, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }

  // The file is refused, and what the set held is kept only where none was opened.
  void expect_refused(const std::string& path, bool is_kept = false) {
    set_.add_utxo({uint256(uint64_t{9}), 9}, TxOut(9, {}));
    const Model before = contents(set_);
    EXPECT_FALSE(set_.load_from_file(path));
    EXPECT_EQ(contents(set_), is_kept ? before : Model());
  }

  std::filesystem::path directory_;
  std::filesystem::path path_;
  UTXOSet set_;
};

TEST_F(UTXOSetFile, HasTheStatedLayout) {
  ASSERT_TRUE(set_.save_to_file(path_));
  EXPECT_EQ(crypto::bytes_to_hex(read()),
            "01000000"
            "24000000"
            "09" +
                std::string(62, '0') +
                "01000000"
                "0a000000"
                "0500000000000000"
                "00"
                "00");
}

TEST_F(UTXOSetFile, RestoresWhatWasSaved) {
  std::mt19937_64 random(9);
  UTXOSet saved;
  for (int i = 0; i < 300; ++i) {
    saved.add_utxo({random_uint256(random), static_cast<uint32_t>(random())}, random_output(random));
  }
  ASSERT_TRUE(saved.save_to_file(path_));
  ASSERT_TRUE(set_.load_from_file(path_));
  EXPECT_EQ(contents(set_), contents(saved));
  // The order in the file is that of the ids as numbers.
  const Bytes file = read();
  ASSERT_TRUE(set_.save_to_file(path_));
  EXPECT_EQ(read(), file);

  saved.clear();
  ASSERT_TRUE(saved.save_to_file(path_));  // shorter than the file that stands there
  ASSERT_TRUE(set_.load_from_file(path_));
  EXPECT_EQ(set_.size(), 0u);
}

TEST_F(UTXOSetFile, RefusesWhatIsNotWhole) {
  set_.add_utxo({uint256(uint64_t{8}), 0}, make_p2pkh_output(7, Bytes(20, 3)));
  ASSERT_TRUE(set_.save_to_file(path_));
  const Bytes whole = read();
  for (size_t len = 0; len < whole.size(); ++len) {
    SCOPED_TRACE(len);
    write(ByteView(whole).first(len));
    expect_refused(path_);
  }
  const struct {
    const char* label;
    size_t at;
    uint8_t value;
  } rows[] = {
      {"fewer entries than there are", 0, 1}, {"more entries than there are", 0, 3}, {"2^24 entries and more", 3, 1},
      {"outpoint too short", 4, 35},          {"outpoint too long", 4, 37},          {"outpoint of 16 MiB", 7, 1},
      {"output too short", 44, 34},           {"output too long", 44, 36},           {"output of 4 GiB", 47, 0xff},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Bytes bytes = whole;
    ASSERT_NE(bytes[row.at], row.value);
    bytes[row.at] = row.value;
    write(bytes);
    expect_refused(path_);
  }
  Bytes longer = whole;
  longer.push_back(0);
  write(longer);
  expect_refused(path_);
  ++longer[whole.size() - 14];  // the last output's length now covers the extra byte
  write(longer);
  expect_refused(path_);
  write(whole);
  EXPECT_TRUE(set_.load_from_file(path_));
}

TEST_F(UTXOSetFile, ReportsWhatCannotBeOpenedOrWritten) {
  EXPECT_FALSE(set_.save_to_file(directory_));
  EXPECT_FALSE(set_.save_to_file(directory_ / "absent" / "utxos"));
  EXPECT_FALSE(set_.save_to_file("/dev/full"));
  expect_refused(directory_, true);
  expect_refused(path_, true);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  expect_refused(path_, true);  // would otherwise wait for a writer
}

}  // namespace
}  // namespace norvel
