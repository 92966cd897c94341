#include "mempool/mempool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>

#include "chain/transaction_rules.h"
#include "mempool/mempool_selection.h"
#include "script/script.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

using Entries = std::map<uint256, MempoolEntry>;

// 50 bytes for each input and 50 beside, so that sums of sizes meet limits exactly.
Transaction spend(const std::vector<OutPoint>& outpoints, size_t signature_bytes = 7) {
  Transaction tx;
  for (const OutPoint& outpoint : outpoints) {
    tx.inputs.emplace_back().prevout = outpoint;
    tx.inputs.back().signature.resize(signature_bytes);
  }
  tx.outputs.resize(2);
  tx.outputs[1].script_pubkey.resize(9);
  return tx;
}

OutPoint coin(uint64_t number) {
  return {uint256(number), 0};
}

// The pool by its rules alone: one list, searched from end to end.
struct Model {
  uint64_t max_size;
  Entries entries = {};
  std::vector<uint256> evicted = {};

  uint64_t bytes() const {
    uint64_t sum = 0;
    for (const auto& [id, entry] : entries) {
      sum += entry.size;
    }
    return sum;
  }

  std::vector<uint256> having(const std::function<bool(const MempoolEntry&)>& matches) const {
    std::vector<uint256> ids;
    for (const auto& [id, entry] : entries) {
      if (matches(entry)) {
        ids.push_back(id);
      }
    }
    return ids;
  }

  std::vector<uint256> children(const uint256& parent, std::optional<uint32_t> index = {}) const {
    return having([&](const MempoolEntry& entry) {
      return std::any_of(entry.tx.inputs.begin(), entry.tx.inputs.end(), [&](const TxIn& input) {
        return input.prevout.txid == parent && input.prevout.index == index.value_or(input.prevout.index);
      });
    });
  }
  bool is_spent(const TxIn& input) const { return !children(input.prevout.txid, input.prevout.index).empty(); }

  std::string add(const Transaction& tx, int64_t fee) {
    if (entries.contains(tx.get_txid())) {
      return "Transaction already in mempool";
    }
    if (tx.type == TransactionType::COINBASE) {
      return "Coinbase transactions not allowed in mempool";
    }
    if (std::any_of(tx.inputs.begin(), tx.inputs.end(), [&](const TxIn& input) { return is_spent(input); })) {
      return "Input already spent in mempool";
    }
    if (bytes() + tx.size() > max_size && !entries.empty()) {
      const auto victim = std::min_element(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return a.second.fee_rate < b.second.fee_rate;  // the first of equal ones
      });
      if (!children(victim->first).empty()) {
        evicted.push_back(victim->first);
      }
      entries.erase(victim);
    }
    if (bytes() + tx.size() > max_size) {
      return "Mempool full";
    }
    const double rate = static_cast<double>(fee) / static_cast<double>(tx.size());
    entries[tx.get_txid()] = {tx, fee, tx.size(), 0, rate};
    return "";
  }

  size_t remove_family(const uint256& id) {
    size_t count = entries.erase(id);
    for (const uint256& child : count == 0 ? std::vector<uint256>() : children(id)) {
      count += remove_family(child);
    }
    return count;
  }
};

// Tries each once, the best first of those whose parents have all been taken.
std::vector<uint256> select_plainly(
    const Entries& entries, uint64_t bytes_left,
    const std::function<bool(const Transaction&)>& may_enter = [](const Transaction&) { return true; }) {
  std::vector<uint256> selected;
  std::set<uint256> tried;
  for (;;) {
    const Entries::value_type* best = nullptr;
    for (const auto& item : entries) {
      const bool waits =
          std::any_of(item.second.tx.inputs.begin(), item.second.tx.inputs.end(), [&](const TxIn& input) {
            return entries.contains(input.prevout.txid) && std::ranges::count(selected, input.prevout.txid) == 0;
          });
      const auto rank = [](const MempoolEntry& entry) { return std::pair(-entry.fee_rate, entry.time); };
      if (!waits && !tried.contains(item.first) && (best == nullptr || rank(item.second) < rank(best->second))) {
        best = &item;
      }
    }
    if (best == nullptr) {
      return selected;
    }
    tried.insert(best->first);
    if (best->second.size <= bytes_left && may_enter(best->second.tx)) {
      bytes_left -= best->second.size;
      selected.push_back(best->first);
    }
  }
}

std::vector<uint256> sorted_ids(std::vector<uint256> ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<uint256> sorted(const std::vector<Transaction>& txs) {
  std::vector<uint256> ids;
  std::ranges::transform(txs, std::back_inserter(ids), &Transaction::get_txid);
  return sorted_ids(std::move(ids));
}

TEST(Mempool, AgreesWithAPlainListOnARandomWalk) {
  constexpr uint32_t lock_times[] = {5, kLockTimeThreshold - 2, kLockTimeThreshold, 0xfffffffc};
  std::mt19937_64 random(12);
  Model model{1'500};
  Mempool pool(model.max_size);
  std::vector<Transaction> known{spend({coin(0)})};
  for (int step = 0; step < 5'000; ++step) {
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
      block.transactions = {old, spend({coin(99)})};
      pool.remove_block_transactions(block);
      model.entries.erase(id);
    } else {
      std::vector<OutPoint> prevouts;
      for (auto count = 1 + random() % 3; count > 0; --count) {  // at times the same twice
        prevouts.push_back(random() % 2 == 0 ? coin(random() % 30) : OutPoint{id, static_cast<uint32_t>(random() % 2)});
      }
      Transaction tx = random() % 8 == 0 ? old : spend(prevouts, random() % 40 == 0 ? 1'500 : 7);
      if (random() % 4 == 0) {  // often a sequence that makes it count
        tx.locktime = lock_times[random() % std::size(lock_times)] + static_cast<uint32_t>(random() % 3);
        tx.inputs.back().sequence -= random() % 4 == 0 ? 0 : 1;
      }
      tx.type = random() % 50 == 0 ? TransactionType::COINBASE : tx.type;
      tx.invalidate_cache();
      const auto fee = static_cast<int64_t>(random() % 6) - 1;
      const std::string want = model.add(tx, fee);
      std::string error;
      ASSERT_EQ(pool.add_transaction(tx, fee, error), want.empty());
      ASSERT_EQ(error, want);
      known.push_back(tx);
    }
    const OutPoint asked{id, static_cast<uint32_t>(random() % 3)};
    ASSERT_EQ(pool.get_children(id), model.children(id));
    const std::vector<uint256> spenders = model.children(id, asked.index);
    ASSERT_EQ(pool.is_spent(asked), !spenders.empty());
    ASSERT_EQ(pool.get_spender(asked), spenders.empty() ? std::nullopt : std::optional(spenders[0]));
    ASSERT_EQ(pool.get_output(asked).has_value(), model.entries.contains(id) && asked.index < 2);
    ASSERT_EQ(pool.has_output(asked), pool.get_output(asked).has_value());
    const uint32_t height = lock_times[random() % 2] + 1;
    const uint64_t time = lock_times[2 + random() % 2] + uint64_t{1} + (random() % 8 == 0 ? 0x100000000 : 0);
    std::vector<uint256> locked = pool.get_not_final(height, time);
    std::sort(locked.begin(), locked.end());
    ASSERT_EQ(locked, model.having([&](const MempoolEntry& entry) { return !is_final(entry.tx, height, time); }));
    ASSERT_EQ(pool.get_txids(), model.having([](const MempoolEntry&) { return true; }));
    ASSERT_EQ(pool.has_transaction(id), model.entries.contains(id));
    ASSERT_EQ(pool.get_prevouts(id).size(), model.entries.contains(id) ? model.entries[id].tx.inputs.size() : 0);
    ASSERT_EQ(pool.size(), model.entries.size());
    ASSERT_EQ(pool.size_bytes(), model.bytes());
    ASSERT_EQ(pool.get_transactions_for_block(1'500).size(), model.entries.size());
    ASSERT_EQ(sorted(pool.get_transactions_for_block(1'500, height, time)),
              sorted_ids(select_plainly(model.entries, 1'500,
                                        [&](const Transaction& tx) { return is_final(tx, height, time); })));
    ASSERT_EQ(pool.get_txids_for_block(1'500, 3).size(), std::min<size_t>(3, model.entries.size()));
    if (step % 10 == 0) {
      const auto evicted = pool.take_evicted();
      ASSERT_TRUE(std::ranges::equal(evicted, std::exchange(model.evicted, {})));
    }
  }
  pool.clear();
  EXPECT_EQ(pool.size_bytes() + pool.get_stats().count, 0u);
  EXPECT_FALSE(pool.is_spent(known.back().inputs[0].prevout));
}

TEST(Mempool, ListsUnspentOutputsOfAnAddressAndSumsAnyFees) {
  const Bytes hash(20, 7);
  Transaction parent = spend({coin(1)});
  parent.outputs = {TxOut(1, hash), TxOut(2, {}), TxOut(3, Bytes(19, 7)), TxOut(4, hash)};
  parent.outputs[1].script_pubkey = Script::create_p2pkh_output(hash).bytes;
  Mempool pool(10'000);
  std::string error;
  ASSERT_TRUE(pool.add_transaction(parent, std::numeric_limits<int64_t>::max(), error));
  ASSERT_TRUE(pool.add_transaction(spend({{parent.get_txid(), 0}}), 2, error));
  const auto outputs = pool.get_unconfirmed_outputs_for_address(hash);
  ASSERT_EQ(outputs.size(), 2u);
  EXPECT_EQ(outputs[0].second.value + 10 * outputs[1].second.value, 42);
  EXPECT_EQ(pool.get_stats().total_fees, std::numeric_limits<int64_t>::min() + 1);
}

TEST(Selection, AgreesWithAPlainSearch) {
  std::mt19937_64 random(13);
  for (int round = 0; round < 200; ++round) {
    Entries entries;
    OutpointSpenders spenders;
    std::vector<uint256> ids{uint256(uint64_t{1})};
    for (int64_t i = 0; i < 25; ++i) {
      std::set<OutPoint> prevouts;  // at times two outputs of one parent
      for (uint32_t index = 0; index < 3; ++index) {
        prevouts.insert(
            {random() % 2 == 0 ? ids[0] : ids[random() % ids.size()], static_cast<uint32_t>(3 * i) + index});
      }
      const Transaction tx = spend({prevouts.begin(), prevouts.end()}, 7 + 50 * (random() % 4));
      ids.push_back(tx.get_txid());
      entries[ids.back()] = {tx, 0, tx.size(), (i * 7) % 25, static_cast<double>(random() % 4)};
      for (const OutPoint& prevout : prevouts) {
        spenders[prevout] = ids.back();
      }
    }
    SelectionOrder order;
    SelectionLimits limits{.bytes = 50 * (random() % 100), .least_size = random() % 2 * 150};
    for (auto& [id, entry] : entries) {
      entry.may_have_parents = true;
      order.emplace(entry);
    }
    const auto may_enter = [&](const Transaction& tx) { return round % 2 == 0 || tx.get_txid().bytes()[0] % 8 != 0; };
    limits.may_enter = may_enter;
    const auto select = [&] {
      std::vector<uint256> selected;
      for (const MempoolEntry* entry : select_for_block({entries, spenders, order}, limits)) {
        selected.push_back(entry->tx.get_txid());
      }
      return selected;
    };
    std::vector<uint256> want = select_plainly(entries, limits.bytes, may_enter);
    ASSERT_EQ(select(), want);
    limits.count = random() % 10;
    want.resize(std::min(want.size(), limits.count));
    ASSERT_EQ(select(), want);
  }
}

}  // namespace
}  // namespace norvel
