#include "mempool/mempool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

#include "mempool/mempool_selection.h"
#include "script/script.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

Transaction spend(const std::vector<OutPoint>& outpoints, size_t output_count = 1, size_t signature_bytes = 0) {
  Transaction tx;
  for (const OutPoint& outpoint : outpoints) {
    tx.inputs.emplace_back().prevout = outpoint;
    tx.inputs.back().signature.resize(signature_bytes);
  }
  tx.outputs.resize(output_count);
  return tx;
}

OutPoint coin(uint64_t number) {
  return {uint256(number), 0};
}

// The pool by its rules alone: one list, searched from end to end.
struct ModelEntry {
  Transaction tx;
  int64_t fee = 0;
  double rate = 0.0;
};

class Model {
 public:
  explicit Model(uint64_t max_size) : max_size_(max_size) {}

  std::string add(const Transaction& tx, int64_t fee) {
    if (entries.contains(tx.get_txid())) {
      return "Transaction already in mempool";
    }
    if (tx.type == TransactionType::COINBASE) {
      return "Coinbase transactions not allowed in mempool";
    }
    if (std::any_of(tx.inputs.begin(), tx.inputs.end(), [&](const TxIn& in) { return spender(in.prevout); })) {
      return "Input already spent in mempool";
    }
    if (bytes() + tx.size() > max_size_ && !entries.empty()) {
      const auto victim = std::min_element(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return a.second.rate < b.second.rate;  // the first of equal ones
      });
      const uint256 id = victim->first;
      entries.erase(victim);
      if (!children(id).empty()) {
        evicted.push_back(id);
      }
    }
    if (bytes() + tx.size() > max_size_) {
      return "Mempool full";
    }
    entries[tx.get_txid()] = {tx, fee, static_cast<double>(fee) / static_cast<double>(tx.size())};
    return "";
  }

  uint64_t bytes() const {
    uint64_t sum = 0;
    for (const auto& [id, entry] : entries) {
      sum += entry.tx.size();
    }
    return sum;
  }

  std::optional<uint256> spender(const OutPoint& outpoint) const {
    for (const auto& [id, entry] : entries) {
      for (const TxIn& input : entry.tx.inputs) {
        if (input.prevout == outpoint) {
          return id;
        }
      }
    }
    return std::nullopt;
  }

  std::vector<uint256> children(const uint256& parent) const {
    std::vector<uint256> ids;
    for (const auto& [id, entry] : entries) {
      if (std::any_of(entry.tx.inputs.begin(), entry.tx.inputs.end(),
                      [&](const TxIn& input) { return input.prevout.txid == parent; })) {
        ids.push_back(id);
      }
    }
    return ids;
  }

  size_t remove_family(const uint256& id) {
    size_t count = entries.erase(id);
    if (count != 0) {
      for (const uint256& child : children(id)) {
        count += remove_family(child);
      }
    }
    return count;
  }

  std::map<uint256, ModelEntry> entries;
  std::vector<uint256> evicted;

 private:
  uint64_t max_size_;
};

void expect_equal(const Mempool& pool, const Model& model) {
  const MempoolStats stats = pool.get_stats();
  ASSERT_EQ(pool.size(), model.entries.size());
  ASSERT_EQ(pool.size_bytes(), model.bytes());
  ASSERT_EQ(stats.count, model.entries.size());
  int64_t fees = 0;
  std::vector<uint256> locked;
  for (const auto& [id, entry] : model.entries) {
    ASSERT_TRUE(pool.get_transaction(id));
    fees += entry.fee;
    if (entry.tx.locktime != 0) {
      locked.push_back(id);
    }
  }
  EXPECT_EQ(stats.total_fees, fees);
  EXPECT_EQ(pool.get_time_locked(), locked);
}

TEST(Mempool, AgreesWithAPlainListOnARandomWalk) {
  std::mt19937_64 random(12);
  constexpr size_t kMaxSize = 1'500;
  Mempool pool(kMaxSize);
  Model model(kMaxSize);
  std::vector<Transaction> known{spend({coin(0)})};
  size_t full_count = 0;
  for (int step = 0; step < 6'000; ++step) {
    const Transaction old = known[random() % known.size()];
    const uint256 id = old.get_txid();
    const auto choice = random() % 10;
    if (choice == 0) {
      pool.remove_transaction(id);
      model.entries.erase(id);
    } else if (choice == 1) {
      ASSERT_EQ(pool.remove_with_descendants(id), model.remove_family(id));
    } else if (choice == 2) {
      Block block;
      block.transactions = {old, known.back()};
      pool.remove_block_transactions(block);
      model.entries.erase(id);
      model.entries.erase(known.back().get_txid());
    } else {
      std::vector<OutPoint> prevouts;
      for (auto count = 1 + random() % 3; count > 0; --count) {  // the same outpoint twice at times
        prevouts.push_back(random() % 2 == 0 ? coin(random() % 30) : OutPoint{id, static_cast<uint32_t>(random() % 2)});
      }
      Transaction tx = random() % 8 == 0 ? old : spend(prevouts, 2, random() % 40 == 0 ? 1'500 : random() % 100);
      tx.locktime = random() % 8 == 0 ? 1 : tx.locktime;
      tx.type = random() % 50 == 0 ? TransactionType::COINBASE : tx.type;
      tx.invalidate_cache();
      const auto fee = static_cast<int64_t>(random() % 6) - 1;
      const std::string want = model.add(tx, fee);
      std::string error;
      ASSERT_EQ(pool.add_transaction(tx, fee, error), want.empty());
      ASSERT_EQ(error, want);
      full_count += want == "Mempool full" ? 1 : 0;
      known.push_back(tx);
    }
    const OutPoint asked{id, static_cast<uint32_t>(random() % 3)};
    ASSERT_EQ(pool.get_children(id), model.children(id));
    ASSERT_EQ(pool.get_spender(asked), model.spender(asked));
    ASSERT_EQ(pool.is_spent(coin(step % 30)), model.spender(coin(step % 30)).has_value());
    ASSERT_EQ(pool.get_output(asked).has_value(), model.entries.contains(id) && asked.index < old.outputs.size());
    ASSERT_NO_FATAL_FAILURE(expect_equal(pool, model));
    if (step % 10 == 0) {
      ASSERT_EQ(pool.take_evicted(), std::exchange(model.evicted, {}));
    }
  }
  EXPECT_GT(full_count, 0u);
  pool.clear();
  expect_equal(pool, Model(kMaxSize));
  EXPECT_FALSE(pool.is_spent(coin(1)));
}

TEST(Mempool, MakesRoomByOneEvictionAtMost) {
  const Transaction cheap = spend({coin(1)}, 1, 100);
  const Transaction rich = spend({coin(2)}, 1, 50);
  const size_t held = cheap.size() + rich.size();
  const size_t base = spend({coin(3)}).size();
  const struct {
    const char* label;
    size_t newcomer_bytes, max_size;
    const char* want;
    size_t want_count;
  } rows[] = {
      {"fits exactly", base + 10, held + base + 10, "", 3},
      {"one byte too many: the cheapest goes, though it pays more", base + 10, held + base + 9, "", 2},
      {"fills the freed room", cheap.size(), held, "", 2},
      {"one byte more than the freed room", cheap.size() + 1, held, "Mempool full", 1},
      {"larger than any room", 2 * held, held, "Mempool full", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Mempool pool(row.max_size);
    std::string error;
    ASSERT_TRUE(pool.add_transaction(cheap, 10, error) && pool.add_transaction(rich, 1'000, error));
    const Transaction newcomer = spend({coin(3)}, 1, row.newcomer_bytes - base);
    EXPECT_EQ(pool.add_transaction(newcomer, 0, error), *row.want == '\0');
    EXPECT_EQ(error, row.want);
    EXPECT_EQ(pool.size(), row.want_count);
    EXPECT_TRUE(pool.get_transaction(rich.get_txid()));
  }
}

TEST(Mempool, TakesFeesOfAnySize) {
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  Mempool pool(10'000);
  std::string error;
  ASSERT_TRUE(pool.add_transaction(spend({coin(1)}), kMost, error) && pool.add_transaction(spend({coin(2)}), 2, error));
  EXPECT_EQ(pool.get_stats().total_fees, std::numeric_limits<int64_t>::min() + 1);
}

TEST(Mempool, ListsUnspentOutputsOfAnAddress) {
  const Bytes hash(20, 7);
  Transaction parent = spend({coin(1)}, 4);
  parent.outputs[0].pubkey_hash = hash;
  parent.outputs[1].script_pubkey = Script::create_p2pkh_output(hash).bytes;
  parent.outputs[2].pubkey_hash = Bytes(19, 7);
  parent.outputs[3].pubkey_hash = hash;
  Mempool pool(10'000);
  std::string error;
  ASSERT_TRUE(pool.add_transaction(parent, 1, error));
  ASSERT_TRUE(pool.add_transaction(spend({{parent.get_txid(), 0}}), 1, error));
  std::vector<uint32_t> indexes;
  for (const auto& [outpoint, output] : pool.get_unconfirmed_outputs_for_address(hash)) {
    EXPECT_EQ(outpoint.txid, parent.get_txid());
    indexes.push_back(outpoint.index);
  }
  EXPECT_EQ(indexes, (std::vector<uint32_t>{1, 3}));
}

// One at a time, searching for the best whose parents have all been taken; what
// does not fit is struck off, and so are in effect its descendants.
std::vector<uint256> select_plainly(std::map<uint256, MempoolEntry> left, uint64_t bytes_left) {
  std::vector<uint256> selected;
  std::set<uint256> struck;
  for (;;) {
    const std::pair<const uint256, MempoolEntry>* best = nullptr;
    for (const auto& item : left) {
      const bool waits = std::any_of(item.second.tx.inputs.begin(), item.second.tx.inputs.end(), [&](const TxIn& in) {
        return left.contains(in.prevout.txid) || struck.contains(in.prevout.txid);
      });
      if (!waits && (best == nullptr || item.second.fee_rate > best->second.fee_rate ||
                     (item.second.fee_rate == best->second.fee_rate && item.second.time < best->second.time))) {
        best = &item;
      }
    }
    if (best == nullptr) {
      return selected;
    }
    const uint256 id = best->first;
    if (best->second.size > bytes_left) {
      struck.insert(id);
    } else {
      bytes_left -= best->second.size;
      selected.push_back(id);
    }
    left.erase(id);
  }
}

TEST(Selection, AgreesWithAPlainSearch) {
  std::mt19937_64 random(13);
  for (int round = 0; round < 300; ++round) {
    std::map<uint256, MempoolEntry> entries;
    OutpointSpenders spenders;
    std::vector<uint256> ids{uint256(uint64_t{1})};
    for (int64_t i = 0; i < 25; ++i) {
      std::set<OutPoint> prevouts;
      for (auto count = 1 + random() % 3; count > 0; --count) {
        prevouts.insert({random() % 3 == 0 ? random_uint256(random) : ids[random() % ids.size()],
                         static_cast<uint32_t>(random() % 4)});
      }
      std::erase_if(prevouts, [&](const OutPoint& prevout) { return spenders.contains(prevout); });
      const Transaction tx = spend({prevouts.begin(), prevouts.end()}, 4, random() % 200);
      const uint256 id = tx.get_txid();
      const double rate = static_cast<double>(random() % 4);
      if (entries.try_emplace(id, MempoolEntry{tx, 0, tx.size(), (i * 7) % 25, rate}).second) {
        ids.push_back(id);
        for (const OutPoint& prevout : prevouts) {
          spenders[prevout] = id;
        }
      }
    }
    const uint64_t max_bytes = random() % 5'000;
    std::vector<uint256> selected;
    for (const MempoolEntry* entry : select_for_block(entries, spenders, max_bytes)) {
      selected.push_back(entry->tx.get_txid());
    }
    ASSERT_EQ(selected, select_plainly(entries, max_bytes));
  }
}

TEST(Selection, HandsOutCopiesThatFit) {
  Mempool pool(10'000);
  std::string error;
  const Transaction parent = spend({coin(1)}, 2, 200);
  const Transaction child = spend({{parent.get_txid(), 0}, {parent.get_txid(), 1}});
  EXPECT_TRUE(pool.get_transactions_for_block(1'000).empty());
  ASSERT_TRUE(pool.add_transaction(parent, 0, error) && pool.add_transaction(child, 900, error));
  EXPECT_TRUE(pool.get_transactions_for_block(0).empty());
  EXPECT_TRUE(pool.get_transactions_for_block(parent.size() - 1).empty());  // the child alone would fit
  EXPECT_EQ(pool.get_transactions_for_block(parent.size()).size(), 1u);
  const auto both = pool.get_transactions_for_block(parent.size() + child.size());
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(both[1].serialize(), child.serialize());
}

}  // namespace
}  // namespace norvel
