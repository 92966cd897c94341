// Encoding, decoding and identifying a payment with two inputs and two outputs.

#include <benchmark/benchmark.h>

#include "core/transaction.h"
#include "sample_data.h"

namespace norvel {

namespace {

void transaction_txid(benchmark::State& state) {
  Transaction tx = bench::sample_payment().tx;
  uint256 txid;
  for (auto _ : state) {
    ++tx.locktime;
    tx.invalidate_cache();
    txid = tx.get_txid();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(bench::digest(txid.bytes()));
}
BENCHMARK(transaction_txid);

void transaction_encode(benchmark::State& state) {
  const Transaction tx = bench::sample_payment().tx;
  Bytes bytes;
  for (auto _ : state) {
    bytes = tx.serialize();
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
  state.SetLabel(std::to_string(bytes.size()) + " bytes " + bench::digest(bytes));
}
BENCHMARK(transaction_encode);

void transaction_decode(benchmark::State& state) {
  const Bytes bytes = bench::sample_payment().tx.serialize();
  Transaction tx;
  for (auto _ : state) {
    tx = Transaction::deserialize(bytes);
    benchmark::DoNotOptimize(tx.outputs.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
  state.SetLabel(bench::digest(tx.serialize()));
}
BENCHMARK(transaction_decode);

}  // namespace

}  // namespace norvel
