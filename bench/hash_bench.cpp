// Double SHA-256 by size, and what the nonce search does with each header.

#include <benchmark/benchmark.h>

#include "core/block_header.h"
#include "crypto/hash.h"
#include "sample_data.h"

namespace norvel {

namespace {

void hash256_bytes(benchmark::State& state) {
  Bytes data(static_cast<size_t>(state.range(0)), 0x5a);
  uint256 hash;
  for (auto _ : state) {
    hash = crypto::hash256(data);
    data[0] = hash.bytes()[0];
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  state.SetLabel(bench::digest(hash.bytes()));
}
BENCHMARK(hash256_bytes)->Arg(32)->Arg(84)->Arg(1'000)->Arg(100'000);

void header_hash(benchmark::State& state) {
  BlockHeader header = bench::sample_block(1).header;
  uint256 hash;
  for (auto _ : state) {
    ++header.nonce;
    hash = header.get_hash();
    benchmark::DoNotOptimize(hash);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(bench::digest(hash.bytes()));
}
BENCHMARK(header_hash);

void header_check(benchmark::State& state) {
  BlockHeader header = bench::sample_block(1).header;
  header.bits = 0x1b00ffff;
  size_t found = 0;
  for (auto _ : state) {
    ++header.nonce;
    found += header.check_proof_of_work() ? 1 : 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(bench::digest(to_le(static_cast<uint64_t>(found))));
}
BENCHMARK(header_check);

}  // namespace

}  // namespace norvel
