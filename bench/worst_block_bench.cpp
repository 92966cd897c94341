// Connecting the blocks that cost most: nothing limits what a script does, so
// their time is bounded by the bytes that it runs. Those of unlocking scripts lie
// in the block; those of locking scripts in outputs of blocks before it, which
// anybody can have prepared.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <stdexcept>
#include <vector>

#include "bench_chain.h"
#include "chain/genesis.h"
#include "script/script.h"

namespace norvel {

namespace {

constexpr size_t kUnlockingBytesMax = 65'535;
constexpr size_t kFullBytes = 995'000;  // leaves a block room for its header and coinbase
constexpr size_t kTinyBytes = 20'000;
constexpr size_t kInputBytes = 47;           // of one with an empty unlocking script
constexpr size_t kOutputOverheadBytes = 16;  // of an output beside its script

size_t bytes_of_block() {
  return bench::is_full_size() ? kFullBytes : kTinyBytes;
}

void append_op(Bytes& script, OpCode opcode) {
  script.push_back(static_cast<uint8_t>(opcode));
}

void append_push(Bytes& script, ByteView data) {
  script.push_back(static_cast<uint8_t>(data.size()));
  append(script, data);
}

// r = 1, s = 2: the shortest signature whose check costs as much as any.
Bytes short_signature(uint8_t hash_type) {
  return {0x30, 0x06, 0x02, 0x01, 0x01, 0x02, 0x01, 0x02, hash_type};
}

// Checks that fail and are dropped, as many as fit, of `hash_type_count` types in
// turn, and at the end a true value.
Bytes checks_script(size_t bytes_max, size_t hash_type_count, int64_t& check_count) {
  constexpr size_t kCheckBytesMax = 10 + 34 + 2;
  static const Bytes keys[] = {sample_key(1).pubkey, sample_key(2).pubkey};
  Bytes script;
  for (size_t i = 0; script.size() + kCheckBytesMax + 2 <= bytes_max; ++i) {
    if (hash_type_count > 1 || i == 0) {
      append_push(script, short_signature(static_cast<uint8_t>(i % hash_type_count)));
    }
    if (hash_type_count == 1) {
      append_op(script, OpCode::OP_DUP);
    }
    append_push(script, keys[i % 2]);
    append_op(script, OpCode::OP_CHECKSIG);
    append_op(script, OpCode::OP_DROP);
    ++check_count;
  }
  append_op(script, OpCode::OP_1);
  return script;
}

Bytes hashes_script(size_t bytes_max) {
  Bytes script = {static_cast<uint8_t>(OpCode::OP_1)};
  script.resize(bytes_max, static_cast<uint8_t>(OpCode::OP_HASH160));
  return script;
}

const Bytes kAlwaysTrue = {static_cast<uint8_t>(OpCode::OP_1)};

TxOut output_with(Bytes script) {
  TxOut output;
  output.script_pubkey = std::move(script);
  return output;
}

// What is spent and how: blocks that go before, each with the locking scripts of
// its outputs, and the unlocking script of every input.
struct Attack {
  std::vector<std::vector<Bytes>> locking;
  std::vector<Bytes> unlocking;  // fewer than inputs: the others are empty
  size_t padding_bytes = 0;      // in an output of the spender, for all signature hashes to cover
  int64_t operation_count = 0;
};

// As many unlocking scripts as a block takes, each as long as one may be.
Attack in_the_block(const std::function<Bytes(size_t, int64_t&)>& make_script) {
  Attack attack;
  for (size_t left = bytes_of_block(); left > 1'000;) {
    const size_t bytes = std::min(left - kInputBytes, kUnlockingBytesMax);
    attack.unlocking.push_back(make_script(bytes, attack.operation_count));
    left -= attack.unlocking.back().size() + kInputBytes;
    left = left < kInputBytes ? 0 : left;
  }
  attack.locking.emplace_back(attack.unlocking.size(), kAlwaysTrue);
  return attack;
}

Attack checks_in_unlocking_scripts() {
  return in_the_block([](size_t bytes, int64_t& count) { return checks_script(bytes, 1, count); });
}

Attack hashes_in_unlocking_scripts() {
  return in_the_block([](size_t bytes, int64_t& count) {
    count += static_cast<int64_t>(bytes) - 1;
    return hashes_script(bytes);
  });
}

// Each input checks one signature, whose hash covers all inputs.
Attack hashes_of_a_large_transaction() {
  constexpr size_t kOneCheckBytes = 48;
  Attack attack;
  for (size_t left = bytes_of_block(); left > kInputBytes + kOneCheckBytes; left -= kInputBytes + kOneCheckBytes) {
    attack.unlocking.push_back(checks_script(kOneCheckBytes, 1, attack.operation_count));
  }
  attack.locking.emplace_back(attack.unlocking.size(), kAlwaysTrue);
  return attack;
}

// Two blocks of one output each, so that two cores have work.
Attack checks_in_locking_scripts() {
  Attack attack;
  for (int i = 0; i < 2; ++i) {
    attack.locking.push_back({checks_script(bytes_of_block(), 1, attack.operation_count)});
  }
  return attack;
}

// One block of scripts that each have a transaction of a whole block hashed for
// every hash type.
Attack hash_types_in_locking_scripts() {
  constexpr size_t kTypes = 256;
  constexpr size_t kTypesBytes = kTypes * (10 + 34 + 2) + 2;
  Attack attack;
  std::vector<Bytes> scripts;
  for (size_t left = bytes_of_block(); left > kTypesBytes + kOutputOverheadBytes;
       left -= kTypesBytes + kOutputOverheadBytes) {
    scripts.push_back(checks_script(kTypesBytes, kTypes, attack.operation_count));
  }
  attack.padding_bytes = bytes_of_block() - scripts.size() * kInputBytes - 200;
  attack.locking.push_back(std::move(scripts));
  return attack;
}

// The blocks up to the costly one, which is the last.
std::vector<Block> make_blocks(const Attack& attack) {
  const SampleKey owner = sample_key(1);
  std::vector<Block> blocks = {make_child(make_genesis_block())};
  Transaction spender;
  spender.timestamp = kGenesisTimestamp;
  for (const std::vector<Bytes>& scripts : attack.locking) {
    const auto reward = output_of(blocks.back().transactions.front());
    Transaction funding = pay(owner, {reward}, {reward.second.value}, 1);
    for (const Bytes& script : scripts) {
      funding.outputs.push_back(output_with(script));
    }
    funding.sign_input(0, owner.private_key, Script(reward.second.locking_script()));
    ChildOptions options;
    options.txs = {funding};
    blocks.push_back(make_child(blocks.back(), options));
    for (size_t i = 0; i < scripts.size(); ++i) {
      TxIn& input = spender.inputs.emplace_back();
      input.prevout = {funding.get_txid(), static_cast<uint32_t>(i + 1)};
      input.pubkey.assign(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
    }
  }
  for (size_t i = 0; i < attack.unlocking.size(); ++i) {
    spender.inputs[i].signature = attack.unlocking[i];
  }
  spender.outputs.push_back(output_with(Bytes(attack.padding_bytes + 1, 1)));
  ChildOptions options;
  options.txs = {spender};
  blocks.push_back(make_child(blocks.back(), options));
  return blocks;
}

double cpu_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

void connect(benchmark::State& state, Attack (*make_attack)()) {
  const bench::QuietConsole quiet;
  const Attack attack = make_attack();
  const std::vector<Block> blocks = make_blocks(attack);
  bool right = true;
  double cpu_s = 0;
  for (auto _ : state) {
    const bench::ScratchDirectory directory;
    const auto chain = bench::open_chain(directory.path());
    std::for_each(blocks.begin(), blocks.end() - 1, [&](const Block& block) { bench::add(*chain, block); });
    const Block block = Block::deserialize(blocks.back().serialize());
    const double start_s = cpu_seconds();
    state.SetIterationTime(bench::seconds_of([&] { bench::add(*chain, block); }));
    cpu_s += cpu_seconds() - start_s;
    right &= chain->get_best_hash() == blocks.back().get_hash();
  }
  size_t prepared_bytes = 0;
  std::for_each(blocks.begin(), blocks.end() - 1, [&](const Block& block) { prepared_bytes += block.size(); });
  state.counters["cpu_s"] = cpu_s / static_cast<double>(state.iterations());
  state.counters["inputs"] = static_cast<double>(blocks.back().transactions[1].inputs.size());
  state.SetItemsProcessed(state.iterations() * attack.operation_count);
  state.SetLabel(bench::verdict(right, std::to_string(attack.operation_count) + " operations, " +
                                           std::to_string(blocks.back().size()) + " bytes after " +
                                           std::to_string(prepared_bytes)));
}

void one_run(benchmark::internal::Benchmark* bench) {
  bench->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);
}
BENCHMARK_CAPTURE(connect, checks_in_unlocking_scripts, &checks_in_unlocking_scripts)->Apply(one_run);
BENCHMARK_CAPTURE(connect, hashes_in_unlocking_scripts, &hashes_in_unlocking_scripts)->Apply(one_run);
BENCHMARK_CAPTURE(connect, hashes_of_a_large_transaction, &hashes_of_a_large_transaction)->Apply(one_run);
BENCHMARK_CAPTURE(connect, checks_in_locking_scripts, &checks_in_locking_scripts)->Apply(one_run);
BENCHMARK_CAPTURE(connect, hash_types_in_locking_scripts, &hash_types_in_locking_scripts)->Apply(one_run);

}  // namespace

}  // namespace norvel
