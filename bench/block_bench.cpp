// Encoding, decoding and Merkle roots of blocks of 10 and 2,000 payments.

#include <benchmark/benchmark.h>

#include "core/block.h"
#include "core/merkle.h"
#include "sample_data.h"

namespace norvel {

namespace {

void block_encode(benchmark::State& state) {
  const Block block = bench::sample_block(static_cast<size_t>(state.range(0)));
  Bytes bytes;
  for (auto _ : state) {
    bytes = block.serialize();
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
  state.SetLabel(std::to_string(bytes.size()) + " bytes");
}
BENCHMARK(block_encode)->Arg(10)->Arg(2'000);

void block_decode(benchmark::State& state) {
  const Bytes bytes = bench::sample_block(static_cast<size_t>(state.range(0))).serialize();
  Block block;
  for (auto _ : state) {
    block = Block::deserialize(bytes);
    benchmark::DoNotOptimize(block.transactions.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
  state.SetLabel(block.serialize() == bytes ? "same bytes" : "WRONG RESULT");
}
BENCHMARK(block_decode)->Arg(10)->Arg(2'000);

void merkle_root(benchmark::State& state) {
  std::vector<uint256> hashes;
  for (int64_t i = 0; i < state.range(0); ++i) {
    hashes.emplace_back(static_cast<uint64_t>(i));
  }
  uint256 root;
  for (auto _ : state) {
    root = merkle::compute_merkle_root(hashes);
    hashes[0] = root;
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetLabel(bench::digest(root.bytes()));
}
BENCHMARK(merkle_root)->Arg(10)->Arg(2'000);

}  // namespace

}  // namespace norvel
