// What a node does for others: catching up from one peer over loopback, telling
// a neighbour of a submitted block, answering RPC requests; and the memory of a
// long chain. Whole nodes without their program, in this process.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench_chain.h"
#include "chain/genesis.h"
#include "core/file_io.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "network/network_manager.h"
#include "rpc/client.h"
#include "rpc/server.h"
#include "sample_data.h"

namespace norvel {

namespace {

constexpr size_t kPoolBytes = 300'000'000;
constexpr const char kLoopback[] = "127.0.0.1";

// A TCP port of the loopback address that was free a moment ago.
uint16_t free_port() {
  const FileDescriptor socket_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket_fd.get(), generic, len) != 0 || getsockname(socket_fd.get(), generic, &len) != 0) {
    throw std::runtime_error("no free port");
  }
  return ntohs(address.sin_port);
}

// Chain, pool, network and RPC server joined as the daemon joins them.
class BenchNode {
 public:
  BenchNode()
      : peer_port_(free_port()),
        chain_(bench::open_chain(directory_.path())),
        pool_(std::make_shared<Mempool>(kPoolBytes)),
        updater_(*chain_, *pool_),
        network_(std::make_shared<network::NetworkManager>(peer_port_, kLoopback, directory_.path(), 8, 8, 60)) {
    chain_->set_pool_sink(&updater_);
    network_->set_blockchain(chain_.get());
    network_->set_mempool(pool_.get());
  }

  ~BenchNode() {
    network_->stop();
    if (server_) {
      server_->stop();
      server_->wait_for_connections(5'000);
    }
  }

  BenchNode(const BenchNode&) = delete;
  BenchNode& operator=(const BenchNode&) = delete;

  void start_network() {
    if (!network_->start(true)) {
      throw std::runtime_error("network did not start");
    }
  }

  rpc::RpcClient start_server() {
    server_ = std::make_unique<rpc::RpcServer>(0, kLoopback);
    server_->set_components({chain_, pool_, network_});
    server_->register_default_handlers();
    if (!server_->start()) {
      throw std::runtime_error("server did not start");
    }
    return rpc::RpcClient(kLoopback, server_->get_port());
  }

  uint16_t peer_port() const { return peer_port_; }
  Blockchain& chain() { return *chain_; }
  Mempool& pool() { return *pool_; }
  network::NetworkManager& network() { return *network_; }

 private:
  const bench::ScratchDirectory directory_;
  const uint16_t peer_port_;
  const std::shared_ptr<Blockchain> chain_;
  const std::shared_ptr<Mempool> pool_;
  PoolUpdater updater_;
  const std::shared_ptr<network::NetworkManager> network_;
  std::unique_ptr<rpc::RpcServer> server_;
};

void wait_until(const std::function<bool()>& reached) {
  constexpr int kStepsMax = 1'200'000;
  for (int step = 0; step < kStepsMax; ++step) {
    if (reached()) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  throw std::runtime_error("did not happen within ten minutes");
}

void connect(BenchNode& from, BenchNode& to) {
  wait_until([&] { return from.network().connect_to_peer(kLoopback, to.peer_port()); });
}

// Both directions.
uint64_t wire_bytes_of(const network::NetworkManager& network) {
  uint64_t bytes = 0;
  for (const network::PeerInfo& peer : network.get_peers()) {
    bytes += peer.bytes_received + peer.bytes_sent;
  }
  return bytes;
}

void synchronise(benchmark::State& state) {
  const auto height = static_cast<uint32_t>(state.range(0));
  const bench::QuietConsole quiet;
  BenchNode source;
  bench::grow(source.chain(), height);
  uint64_t block_bytes = 0;
  for (uint32_t at = 1; at <= height; ++at) {
    block_bytes += bench::block_at(source.chain(), at).serialize().size();
  }
  source.start_network();
  uint64_t wire_bytes = 0;
  bool right = true;
  for (auto _ : state) {
    BenchNode late;
    late.start_network();
    state.SetIterationTime(bench::seconds_of([&] {
      connect(late, source);
      wait_until([&] { return late.chain().get_best_height() == height; });
    }));
    right &= late.chain().get_best_hash() == source.chain().get_best_hash();
    wire_bytes = wire_bytes_of(late.network());
  }
  state.SetItemsProcessed(state.iterations() * height);
  state.counters["wire/blocks"] = static_cast<double>(wire_bytes) / static_cast<double>(block_bytes);
  state.SetLabel(bench::verdict(right, std::to_string(height) + " blocks"));
}

void synchronise_sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgName("blocks")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
  bench->Arg(bench::is_full_size() ? 10'000 : 20);
}
BENCHMARK(synchronise)->Apply(synchronise_sizes);

// From the call of submitblock at one node to the tip change of its neighbour.
void submit_to_neighbour(benchmark::State& state) {
  const bench::QuietConsole quiet;
  BenchNode first;
  BenchNode second;
  first.start_network();
  second.start_network();
  rpc::RpcClient client = first.start_server();
  connect(first, second);
  wait_until([&] {
    const auto peers = first.network().get_peers();
    return peers.size() == 1 && peers.front().handshake_complete;
  });
  Block tip = make_genesis_block();
  bool right = true;
  for (auto _ : state) {
    tip = make_child(tip);
    state.SetIterationTime(bench::seconds_of([&] {
      std::string error;
      right &= client.submit_block(tip, error);
      wait_until([&] { return second.chain().get_best_hash() == tip.get_hash(); });
    }));
  }
  state.SetLabel(bench::verdict(right, bench::digest(tip.get_hash().bytes())));
}
BENCHMARK(submit_to_neighbour)
    ->UseManualTime()
    ->Iterations(bench::is_full_size() ? 50 : 2)
    ->Unit(benchmark::kMillisecond);

// Mines a coinbase and the payment that splits it into `count` outputs of `value` and the rest.
Transaction mine_outputs(BenchNode& node, size_t count, int64_t value) {
  constexpr uint8_t kOwner = 1;
  const Block funding = make_child(bench::block_at(node.chain(), node.chain().get_best_height()));
  bench::add(node.chain(), funding);
  const auto reward = output_of(funding.transactions.front());
  std::vector<int64_t> values(count, value);
  values.push_back(reward.second.value - static_cast<int64_t>(count) * value);
  ChildOptions options;
  options.txs = {pay(sample_key(kOwner), {reward}, values, kOwner)};
  bench::add(node.chain(), make_child(funding, options));
  return options.txs.front();
}

// Payments of one input each, all with the signature of the first: a template checks none.
void fill_pool(BenchNode& node, size_t count) {
  constexpr size_t kOutputsEach = 2'000;
  constexpr int64_t kValue = 100'000;
  std::mt19937_64 random(1);
  std::string error;
  for (size_t left = count; left > 0;) {
    const size_t outputs = std::min(kOutputsEach, left);
    const Transaction funding = mine_outputs(node, outputs, kValue);
    Transaction tx = pay(sample_key(1), {output_of(funding)}, {kValue});
    for (size_t i = 0; i < outputs; ++i) {
      const int64_t fee = 1'000 + static_cast<int64_t>(random() % 1'000);
      tx.inputs.front().prevout = output_of(funding, i).first;
      tx.outputs.front().value = kValue - fee;
      tx.invalidate_cache();
      if (!node.pool().add_transaction(tx, fee, error)) {
        throw std::runtime_error("pool refused: " + error);
      }
    }
    left -= outputs;
  }
}

void answer_requests(benchmark::State& state, const std::string& method) {
  const bench::QuietConsole quiet;
  BenchNode node;
  fill_pool(node, static_cast<size_t>(state.range(0)));
  rpc::RpcClient client = node.start_server();
  rpc::JsonValue params = rpc::JsonValue::make_object();
  params.set("address", sample_key(1).address);
  rpc::JsonValue result;
  for (auto _ : state) {
    result = client.call(method, params);
  }
  state.SetItemsProcessed(state.iterations());
  const bool right = method == "getblockcount" ? result.type == rpc::JsonType::kNumber
                                               : result.get("transactions").array.empty() == (state.range(0) == 0);
  state.SetLabel(bench::verdict(right, std::to_string(result.get("transactions").array.size()) + " transactions"));
}

void request_pools(benchmark::internal::Benchmark* bench) {
  bench->ArgName("pool")->UseRealTime()->Unit(benchmark::kMicrosecond);
  bench->Arg(0)->Arg(bench::is_full_size() ? 50'000 : 20);
}
BENCHMARK_CAPTURE(answer_requests, getblockcount, "getblockcount")->Apply(request_pools);
BENCHMARK_CAPTURE(answer_requests, getblocktemplate, "getblocktemplate")->Apply(request_pools);

// Heap in use by a chain that was opened, not grown.
void memory_of_chain(benchmark::State& state) {
  const bench::QuietConsole quiet;
  const bench::ScratchDirectory directory;
  const auto height = static_cast<uint32_t>(state.range(0));
  {
    const auto chain = bench::open_chain(directory.path());
    bench::grow(*chain, height);
  }
  malloc_trim(0);
  const auto in_use = [] {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  const size_t before = in_use();
  bool right = true;
  size_t after = 0;
  for (auto _ : state) {
    const auto chain = bench::open_chain(directory.path());
    right &= chain->get_best_height() == height;
    after = in_use();
  }
  state.counters["MiB"] = static_cast<double>(after - before) / (1024.0 * 1024.0);
  state.counters["bytes/block"] = static_cast<double>(after - before) / height;
  state.SetLabel(bench::verdict(right, std::to_string(height) + " blocks"));
}
BENCHMARK(memory_of_chain)
    ->ArgName("blocks")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Arg(bench::is_full_size() ? 100'000 : 20);

}  // namespace

}  // namespace norvel
