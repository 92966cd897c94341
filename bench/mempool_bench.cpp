// The pool by number of transactions: adding, adding to a full pool, selecting
// for a template. Growth shows between the sizes.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

#include "bench_chain.h"
#include "mempool/mempool.h"
#include "sample_data.h"

namespace norvel {

namespace {

constexpr size_t kTemplateBytes = 1'048'576;
constexpr size_t kUnlimited = size_t{1} << 40;

struct Offer {
  Transaction tx;
  int64_t fee;
};

// Payments of one size with random fees; every fourth spends an output of the
// one before it.
std::vector<Offer> make_offers(size_t count, uint64_t seed) {
  constexpr int64_t kFeeMax = 100'000;
  std::mt19937_64 random(seed);
  std::vector<Offer> offers;
  offers.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    Transaction tx = bench::sample_payment().tx;
    for (TxIn& input : tx.inputs) {
      input.prevout.txid = random_uint256(random);
    }
    if (i % 4 == 3) {
      tx.inputs.front().prevout = {offers.back().tx.get_txid(), 0};
    }
    tx.invalidate_cache();
    tx.get_txid();
    offers.push_back({std::move(tx), static_cast<int64_t>(random() % kFeeMax)});
  }
  return offers;
}

// Returns how many were taken.
size_t add_all(Mempool& pool, const std::vector<Offer>& offers) {
  size_t taken = 0;
  std::string error;
  for (const Offer& offer : offers) {
    taken += pool.add_transaction(offer.tx, offer.fee, error) ? 1 : 0;
  }
  return taken;
}

void mempool_add(benchmark::State& state) {
  const auto offers = make_offers(static_cast<size_t>(state.range(0)), 1);
  bool right = true;
  for (auto _ : state) {
    Mempool pool(kUnlimited);
    state.SetIterationTime(bench::seconds_of([&] { right &= add_all(pool, offers) == offers.size(); }));
    right &= pool.size() == offers.size();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetLabel(bench::verdict(right, std::to_string(offers.size()) + " taken"));
}

// A tenth more is offered to a pool without room; each takes the place of another.
void mempool_evict(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto offers = make_offers(count, 1);
  const auto more = make_offers(count / 10, 2);
  bool right = true;
  for (auto _ : state) {
    Mempool pool(count * bench::sample_payment().tx.size());
    add_all(pool, offers);
    state.SetIterationTime(bench::seconds_of([&] { right &= add_all(pool, more) == more.size(); }));
    right &= pool.size() == count;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(more.size()));
  state.SetLabel(bench::verdict(right, std::to_string(more.size()) + " evicted"));
}

void mempool_select(benchmark::State& state) {
  const auto offers = make_offers(static_cast<size_t>(state.range(0)), 1);
  Mempool pool(kUnlimited);
  add_all(pool, offers);
  std::vector<Transaction> selected;
  for (auto _ : state) {
    state.SetIterationTime(bench::seconds_of([&] { selected = pool.get_transactions_for_block(kTemplateBytes); }));
  }
  Bytes ids;
  for (const Transaction& tx : selected) {
    append(ids, tx.get_txid().bytes());
  }
  const size_t want = std::min(offers.size(), kTemplateBytes / bench::sample_payment().tx.size());
  state.SetLabel(
      bench::verdict(selected.size() == want, std::to_string(selected.size()) + " selected " + bench::digest(ids)));
}

void pool_sizes(benchmark::internal::Benchmark* bench) {
  const bool full = bench::is_full_size();
  bench->ArgName("transactions")->UseManualTime()->Iterations(full ? 5 : 1)->Unit(benchmark::kMillisecond);
  if (full) {
    bench->Arg(10'000)->Arg(100'000);
  } else {
    bench->Arg(100);
  }
}
BENCHMARK(mempool_add)->Apply(pool_sizes);
BENCHMARK(mempool_evict)->Apply(pool_sizes);
BENCHMARK(mempool_select)->Apply(pool_sizes);

}  // namespace

}  // namespace norvel
