// Connecting empty and full blocks, and reorganisations by depth and length of
// the chain. Block files and database lie in memory unless
// NORVEL_BENCH_DIRECTORY names a place on a disk.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench_chain.h"
#include "chain/genesis.h"
#include "sample_data.h"
#include "script/interpreter.h"

namespace norvel {

namespace {

void connect_empty_blocks(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const bool in_scope = state.range(1) != 0;
  const bench::QuietConsole quiet;
  const std::vector<Block> blocks = make_branch(make_genesis_block(), count);
  bool right = true;
  for (auto _ : state) {
    const bench::ScratchDirectory directory;
    const auto chain = bench::open_chain(directory.path());
    state.SetIterationTime(bench::seconds_of([&] {
      std::optional<Blockchain::WriteScope> scope;
      if (in_scope) {
        scope.emplace(*chain);
      }
      for (const Block& block : blocks) {
        bench::add(*chain, block);
      }
    }));
    right &= chain->get_best_hash() == blocks.back().get_hash();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetLabel(bench::verdict(right, bench::digest(blocks.back().get_hash().bytes())));
}

void empty_block_sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"blocks", "scope"})->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
  if (!bench::is_full_size()) {
    bench->Args({5, 0})->Args({20, 1});
    return;
  }
  for (const int64_t in_scope : {0, 1}) {
    bench->Args({500, in_scope})->Args({2'000, in_scope});
  }
  bench->Args({10'000, 1});
}
BENCHMARK(connect_empty_blocks)->Apply(empty_block_sizes);

// A block of payments with two inputs and two outputs, and what goes before it.
struct FullBlock {
  std::vector<Block> base;
  Bytes block;
  std::map<OutPoint, TxOut> spent;
};

FullBlock make_full_block(size_t bytes_max) {
  constexpr size_t kLengthPrefixBytes = 4;
  constexpr uint8_t kOwner = 1;
  const SampleKey owner = sample_key(kOwner);
  FullBlock made;
  made.base.push_back(make_child(make_genesis_block()));
  const auto reward = output_of(made.base.back().transactions.front());
  const size_t count = bytes_max / bench::sample_payment().tx.size();
  const int64_t value = reward.second.value / static_cast<int64_t>(2 * count);
  const Transaction funding = pay(owner, {reward}, std::vector<int64_t>(2 * count, value), kOwner);
  ChildOptions options;
  options.txs = {funding};
  made.base.push_back(make_child(made.base.back(), options));

  options.txs.clear();
  size_t bytes = make_child(made.base.back()).size();
  for (size_t i = 0; i < count; ++i) {
    const std::vector inputs = {output_of(funding, 2 * i), output_of(funding, 2 * i + 1)};
    Transaction tx = pay(owner, inputs, {value, value}, kOwner);
    bytes += tx.size() + kLengthPrefixBytes;
    if (bytes > bytes_max) {
      break;
    }
    made.spent.insert(inputs.begin(), inputs.end());
    options.txs.push_back(std::move(tx));
  }
  made.block = make_child(made.base.back(), options).serialize();
  return made;
}

void validate_beforehand(const Blockchain& chain, const Block& block, const std::map<OutPoint, TxOut>& spent) {
  std::string reason;
  for (size_t i = 1; i < block.transactions.size(); ++i) {
    if (!chain.validate_transaction(block.transactions[i], spent, reason)) {
      throw std::runtime_error(reason);
    }
  }
}

// Processor time of all threads of this process so far.
double cpu_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// Processor seconds that one input takes, on the average of a few hundred.
double verification_seconds(const Block& block, const std::map<OutPoint, TxOut>& spent) {
  constexpr size_t kSampledTransactions = 250;
  const size_t count = std::min(kSampledTransactions, block.transactions.size() - 1);
  bool valid = true;
  const double start_s = cpu_seconds();
  for (size_t i = 1; i <= count; ++i) {
    const Transaction& tx = block.transactions[i];
    for (size_t k = 0; k < tx.inputs.size(); ++k) {
      valid &= ScriptInterpreter::verify_input_signature(tx, k, spent.at(tx.inputs[k].prevout));
    }
  }
  const double seconds = cpu_seconds() - start_s;
  if (!valid) {
    throw std::runtime_error("a signature does not verify");
  }
  return seconds / static_cast<double>(2 * count);
}

// `of_verification` relates inputs per second to what all cores could verify if
// nothing else had to be done; `of_verification_cpu` does so per second of
// processor time, which a busy machine does not distort.
void connect_full_block(benchmark::State& state) {
  const bool remembered = state.range(1) != 0;
  const bench::QuietConsole quiet;
  const FullBlock made = make_full_block(static_cast<size_t>(state.range(0)));
  double connect_s = 0;
  double connect_cpu_s = 0;
  double verify_s = 0;
  bool right = true;
  int64_t count = 0;
  for (auto _ : state) {
    const bench::ScratchDirectory directory;
    const auto chain = bench::open_chain(directory.path());
    for (const Block& block : made.base) {
      bench::add(*chain, block);
    }
    const Block block = Block::deserialize(made.block);
    count = static_cast<int64_t>(block.transactions.size()) - 1;
    verify_s += verification_seconds(Block::deserialize(made.block), made.spent);
    if (remembered) {
      validate_beforehand(*chain, block, made.spent);
    }
    const double start_s = cpu_seconds();
    const double seconds = bench::seconds_of([&] { bench::add(*chain, block); });
    connect_cpu_s += cpu_seconds() - start_s;
    state.SetIterationTime(seconds);
    connect_s += seconds;
    right &= chain->get_best_hash() == block.get_hash();
  }
  const double cores = std::max(1U, std::thread::hardware_concurrency());
  const double verify_one_s = verify_s / static_cast<double>(state.iterations());
  const double verify_all_s = verify_one_s * static_cast<double>(2 * count * state.iterations());
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["verify_us"] = verify_one_s * 1e6;
  state.counters["of_verification"] = verify_all_s / cores / connect_s;
  state.counters["of_verification_cpu"] = verify_all_s / connect_cpu_s;
  state.SetLabel(
      bench::verdict(right, std::to_string(count) + " transactions, " + std::to_string(made.block.size()) + " bytes"));
}

void full_block_sizes(benchmark::internal::Benchmark* bench) {
  const bool full = bench::is_full_size();
  bench->ArgNames({"bytes", "remembered"})->UseManualTime()->Iterations(full ? 5 : 1)->Unit(benchmark::kMillisecond);
  const auto sizes = full ? std::vector<int64_t>{100'000, 1'000'000} : std::vector<int64_t>{5'000};
  for (const int64_t bytes : sizes) {
    bench->Args({bytes, 0})->Args({bytes, 1});
  }
}
BENCHMARK(connect_full_block)->Apply(full_block_sizes);

// A chain that reorganisations of every depth use in turn; each leaves it one
// block longer.
struct LongChain {
  explicit LongChain(uint32_t height) : length(height) { bench::grow(*chain, height); }

  uint32_t length;
  bench::ScratchDirectory directory = {};
  std::unique_ptr<Blockchain> chain = bench::open_chain(directory.path());
};

LongChain& long_chain(uint32_t length) {
  static std::unique_ptr<LongChain> kept;
  if (!kept || kept->length != length) {
    kept.reset();
    kept = std::make_unique<LongChain>(length);
  }
  return *kept;
}

// Time of the call that adds the heavier branch's last block. It writes a
// snapshot, whose cost follows the state: `snapshot_ms` is that of one alone,
// `rest_ms` the difference.
void reorganise(benchmark::State& state) {
  const auto depth = static_cast<uint32_t>(state.range(1));
  const bool restarted = state.range(2) != 0;
  const bench::QuietConsole quiet;
  LongChain& scene = long_chain(static_cast<uint32_t>(state.range(0)));
  double reorganisation_s = 0;
  double snapshot_s = 0;
  bool right = true;
  for (auto _ : state) {
    const uint32_t height = scene.chain->get_best_height();
    ChildOptions options;
    options.message = "fork at the tip " + scene.chain->get_best_hash().to_hex();
    const std::vector<Block> branch = make_branch(bench::block_at(*scene.chain, height - depth), depth + 1, options);
    {
      const Blockchain::WriteScope scope(*scene.chain);
      std::for_each(branch.begin(), branch.end() - 1, [&](const Block& block) { bench::add(*scene.chain, block); });
    }
    if (restarted) {
      scene.chain.reset();
      scene.chain = bench::open_chain(scene.directory.path());
    }
    right &= scene.chain->get_best_height() == height;
    const Blockchain::WriteScope scope(*scene.chain);
    const double seconds = bench::seconds_of([&] { bench::add(*scene.chain, branch.back()); });
    state.SetIterationTime(seconds);
    reorganisation_s += seconds;
    right &= scene.chain->get_best_hash() == branch.back().get_hash();
    snapshot_s += bench::seconds_of([&] { right &= scene.chain->save_snapshot(); });
  }
  const double to_ms = 1e3 / static_cast<double>(state.iterations());
  state.counters["snapshot_ms"] = snapshot_s * to_ms;
  state.counters["rest_ms"] = (reorganisation_s - snapshot_s) * to_ms;
  state.SetLabel(bench::verdict(right, bench::digest(scene.chain->get_best_hash().bytes())));
}

void reorganisation_sizes(benchmark::internal::Benchmark* bench) {
  const bool full = bench::is_full_size();
  bench->ArgNames({"chain", "depth", "restarted"})->UseManualTime();
  bench->Iterations(full ? 3 : 1)->Unit(benchmark::kMillisecond);
  const auto lengths = full ? std::vector<int64_t>{1'000, 20'000} : std::vector<int64_t>{30};
  const auto depths = full ? std::vector<int64_t>{1, 10, 100, 720} : std::vector<int64_t>{1, 10};
  for (const int64_t length : lengths) {
    for (const int64_t restarted : {0, 1}) {
      for (const int64_t depth : depths) {
        bench->Args({length, depth, restarted});
      }
    }
  }
}
BENCHMARK(reorganise)->Apply(reorganisation_sizes);

}  // namespace

}  // namespace norvel
