// The state by number of outputs: memory, snapshot written and read; and the
// start of a node by length of its chain.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <optional>

#include "bench_chain.h"
#include "chain/chain_state.h"
#include "core/file_io.h"
#include "crypto/hash.h"
#include "sample_data.h"

namespace norvel {

namespace {

constexpr uint32_t kOutputsPerTransaction = 2;

// Payments to as many keys as there are transactions.
std::vector<std::pair<OutPoint, TxOut>> make_outputs(size_t count) {
  std::vector<std::pair<OutPoint, TxOut>> outputs;
  outputs.reserve(count);
  for (uint64_t i = 0; outputs.size() < count; ++i) {
    const uint256 txid = crypto::sha256(to_le(i));
    const Bytes pubkey_hash(txid.bytes().begin(), txid.bytes().begin() + 20);
    for (uint32_t k = 0; k < kOutputsPerTransaction; ++k) {
      outputs.emplace_back(OutPoint{txid, k}, TxOut(kCoin, pubkey_hash));
    }
  }
  return outputs;
}

SnapshotData make_state(size_t output_count) {
  SnapshotData data;
  data.header = {uint256(uint64_t{1}), 1, static_cast<int64_t>(output_count) * kCoin};
  data.outputs = make_outputs(output_count);
  std::sort(data.outputs.begin(), data.outputs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return data;
}

double resident_bytes() {
  malloc_trim(0);
  size_t ignored = 0;
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> ignored >> pages;
  return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void add_outputs(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto outputs = make_outputs(count);
  double bytes = 0;
  bool right = true;
  for (auto _ : state) {
    UTXOSet utxos;
    const double before = resident_bytes();
    state.SetIterationTime(bench::seconds_of([&] {
      for (const auto& [outpoint, output] : outputs) {
        utxos.add_utxo(outpoint, output);
      }
    }));
    bytes += resident_bytes() - before;
    right &= utxos.size() == count;
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes_per_output"] = bytes / static_cast<double>(state.iterations() * state.range(0));
  state.SetLabel(bench::verdict(right, std::to_string(count) + " outputs"));
}

// `of_sha256` is the time of SHA-256 over the same bytes by that of the bench.
void report_snapshot(benchmark::State& state, const Bytes& file, double seconds, bool right) {
  uint256 hash;
  const double sha256_s = bench::seconds_of([&] { hash = crypto::sha256(file); });
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file.size()));
  state.counters["of_sha256"] = sha256_s * static_cast<double>(state.iterations()) / seconds;
  state.SetLabel(bench::verdict(right, std::to_string(file.size()) + " bytes " + bench::digest(hash.bytes())));
}

void snapshot_save(benchmark::State& state) {
  const bench::ScratchDirectory directory;
  const std::string path = directory.path() + "/" + kSnapshotFile;
  ChainState chain_state(0);
  chain_state.restore(make_state(static_cast<size_t>(state.range(0))));
  Bytes file;
  double total_s = 0;
  bool right = true;
  for (auto _ : state) {
    file = Bytes();
    const double seconds = bench::seconds_of([&] {
      file = chain_state.to_snapshot();
      right &= replace_file(path, file);
    });
    state.SetIterationTime(seconds);
    total_s += seconds;
  }
  report_snapshot(state, file, total_s, right && read_whole_file(path, file.size()) == file);
}

void snapshot_load(benchmark::State& state) {
  const bench::ScratchDirectory directory;
  const std::string path = directory.path() + "/" + kSnapshotFile;
  ChainState saved(0);
  saved.restore(make_state(static_cast<size_t>(state.range(0))));
  const Bytes file = saved.to_snapshot();
  bool right = replace_file(path, file);
  saved.clear();
  double total_s = 0;
  for (auto _ : state) {
    ChainState loaded(0);
    const double seconds = bench::seconds_of([&] {
      const std::optional<Bytes> bytes = read_whole_file(path, std::numeric_limits<uint64_t>::max());
      SnapshotData data;
      std::string reason;
      right &= bytes && decode_snapshot(*bytes, data, reason);
      loaded.restore(std::move(data));
    });
    state.SetIterationTime(seconds);
    total_s += seconds;
    right &= loaded.to_snapshot() == file;
  }
  report_snapshot(state, file, total_s, right);
}

void output_counts(benchmark::internal::Benchmark* bench) {
  const bool full = bench::is_full_size();
  bench->ArgName("outputs")->UseManualTime()->Iterations(full ? 3 : 1)->Unit(benchmark::kMillisecond);
  if (full) {
    bench->Arg(100'000)->Arg(1'000'000);
  } else {
    bench->Arg(1'000);
  }
}
BENCHMARK(add_outputs)->Apply(output_counts);
BENCHMARK(snapshot_save)->Apply(output_counts);
BENCHMARK(snapshot_load)->Apply(output_counts);

// Just before the next snapshot is due, so that most blocks are replayed.
void start_up(benchmark::State& state) {
  const auto height = static_cast<uint32_t>(state.range(0));
  const bench::QuietConsole quiet;
  const bench::ScratchDirectory directory;
  auto chain = bench::open_chain(directory.path());
  bench::grow(*chain, height);
  const uint256 tip = chain->get_best_hash();
  chain.reset();
  bool right = true;
  for (auto _ : state) {
    state.SetIterationTime(bench::seconds_of([&] { chain = bench::open_chain(directory.path()); }));
    right &= chain->get_best_hash() == tip;
    chain.reset();
  }
  state.SetLabel(bench::verdict(right, bench::digest(tip.bytes())));
}

void chain_lengths(benchmark::internal::Benchmark* bench) {
  const bool full = bench::is_full_size();
  bench->ArgName("blocks")->UseManualTime()->Iterations(full ? 3 : 1)->Unit(benchmark::kMillisecond);
  if (full) {
    bench->Arg(10'499)->Arg(100'499);
  } else {
    bench->Arg(49);
  }
}
BENCHMARK(start_up)->Apply(chain_lengths);

}  // namespace

}  // namespace norvel
