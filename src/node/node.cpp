#include "node/node.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "chain/blockchain.h"
#include "core/console.h"
#include "core/password_file.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "network/network_manager.h"
#include "node/data_directory.h"
#include "node/mempool_file.h"
#include "node/node_status.h"
#include "node/notify.h"
#include "node/sync_progress.h"
#include "node/warnings.h"
#include "rpc/server.h"
#include "rpc/template_builder.h"

namespace norvel::node {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kWatchPeriodMs = 1'000;

// Shares of the ten seconds that a stop may take: the network takes up to five,
// and supervise() ends the process after nine.
constexpr int64_t kSaveTimeMs = 1'500;
constexpr int64_t kStopTimeMs = 8'500;
constexpr int64_t kConnectionWaitMs = 5'000;

constexpr size_t kMegabyte = 1'000'000;

constexpr char kAnyAddress[] = "0.0.0.0";

int64_t elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

void say(const std::string& text) {
  console::write_out("[Node] " + text + "\n");
}

void complain(const std::string& text) {
  console::error_line("[Node] " + text);
}

ChainOptions chain_options(const Options& options, const NodeParams& params) {
  ChainOptions chain;
  chain.distribution_interval = params.distribution_interval;
  chain.rebuild = options.rebuild;
  return chain;
}

// Chain, pool and network point to each other; they live and die together.
struct Core {
  Core(const Options& options, const NodeParams& params)
      : pool(size_t{options.max_mempool_mb} * kMegabyte),
        chain(options.data_dir, chain_options(options, params)),
        updater(chain, pool),
        network(options.port, options.bind, options.data_dir, options.max_inbound, options.max_outbound,
                options.ban_duration_s) {
    chain.set_pool_sink(&updater);
    network.set_blockchain(&chain);
    network.set_mempool(&pool);
    network.set_fixed_peers(options.connect);
  }

  ~Core() {
    network.stop();  // its threads use the others
    chain.set_pool_sink(nullptr);
  }

  Mempool pool;
  Blockchain chain;
  PoolUpdater updater;
  network::NetworkManager network;
  rpc::TemplateBuilder templates{chain, pool};  // for both listeners
};

}  // namespace

struct Node::State {
  State(const Options& node_options, const NodeParams& params, StopRequest& stop_request)
      : options(node_options), stop(stop_request), core(std::make_shared<Core>(node_options, params)) {}

  // Each is an owner of the whole core.
  rpc::NodeComponents components() const {
    using std::shared_ptr;
    return {shared_ptr<Blockchain>(core, &core->chain), shared_ptr<Mempool>(core, &core->pool),
            shared_ptr<network::NetworkManager>(core, &core->network),
            shared_ptr<rpc::TemplateBuilder>(core, &core->templates)};
  }

  int live();
  bool start();
  bool fail_start();
  bool prepare_rpc();
  bool open_chain();
  bool start_rpc();
  bool start_mining_rpc();
  bool start_network();
  void announce();
  void watch();
  void look_around();
  void check_disk(const std::optional<uint64_t>& free_bytes);
  void shut_down();

  const Options options;
  StopRequest& stop;
  const Clock::time_point start_time = Clock::now();
  const std::shared_ptr<Core> core;
  const std::shared_ptr<Warnings> warnings = std::make_shared<Warnings>();
  SyncProgress progress;
  std::unique_ptr<rpc::RpcServer> rpc;
  std::unique_ptr<rpc::RpcServer> mining;  // null without a mining port
  bool is_chain_open = false;
  bool is_pool_loaded = false;
};

Node::Node(const Options& options, const NodeParams& params, StopRequest& stop)
    : state_(std::make_unique<State>(options, params, stop)) {}

Node::~Node() = default;

void Node::request_stop() {
  const MutexLock lock(mutex_);
  if (state_) {
    state_->core->chain.request_stop();
  }
}

int Node::run() {
  State* state = nullptr;
  {
    const MutexLock lock(mutex_);
    state = state_.get();
  }
  const int status = state->live();
  std::unique_ptr<State> ended;
  {
    const MutexLock lock(mutex_);
    ended = std::move(state_);
  }
  return status;
}

int Node::State::live() {
  try {
    if (start()) {
      announce();
      watch();
    }
  } catch (const std::exception& failure) {
    complain(std::string("Stopping: ") + failure.what());
    stop.request(kExitFailed);
  }
  shut_down();
  return stop.exit_status();
}

// False with the request to stop made, by whoever made it.
bool Node::State::start() {
  check_disk(free_disk_bytes(options.data_dir));
  if (stop.is_requested()) {
    return false;
  }
  // Before the chain, which may take long.
  if (!prepare_rpc()) {
    return fail_start();
  }
  if (!open_chain()) {
    return false;
  }
  TransactionAdmission admission(core->chain, core->pool);
  is_pool_loaded = load_mempool(admission, options.data_dir, stop);
  if (!is_pool_loaded) {
    return false;
  }
  if (!start_rpc() || !start_mining_rpc() || !start_network()) {
    return fail_start();
  }
  return !stop.is_requested();
}

bool Node::State::fail_start() {
  complain("Start failed: see above");
  stop.request(kExitFailed);
  return false;
}

bool Node::State::open_chain() {
  std::string error;
  is_chain_open = core->chain.initialize(error);
  if (is_chain_open || stop.is_requested()) {
    return is_chain_open && !stop.is_requested();
  }
  complain("Start failed: " + error);
  const ChainStatus status = core->chain.get_status();
  if (status.rebuilding) {
    complain("The rebuild of the state from the block files is not done; start again once the cause is mended");
    stop.request(kExitRebuild);
    return false;
  }
  if (status.broken) {
    complain("The state is lost; the next start rebuilds it from the block files");
  }
  stop.request(kExitFailed);
  return false;
}

// What the options' files say of the RPC server.
bool Node::State::prepare_rpc() {
  rpc = std::make_unique<rpc::RpcServer>(options.rpc_port, options.rpc_bind);
  if (!options.rpc_user.empty()) {
    const Password password = read_password(options.rpc_password_file);
    if (password.readable_by_others) {
      complain("Warning: other users can read the password file " + options.rpc_password_file);
    }
    rpc->set_credentials(options.rpc_user, password.text);
  }
  if (!options.rpc_tls_cert.empty()) {
    rpc->set_tls(options.rpc_tls_cert, options.rpc_tls_key);
  }
  return options.rpc_tls_cert.empty() || rpc->has_tls();
}

bool Node::State::start_rpc() {
  rpc->set_components(components());
  rpc->register_default_handlers();
  rpc->register_method(kNodeStatusMethod, make_node_status_handler(components(), warnings, start_time));
  for (const std::string& address : options.rpc_trust) {
    rpc->trust_address(address);
  }
  return rpc->start();
}

bool Node::State::start_mining_rpc() {
  if (options.mining_port == 0) {
    return true;
  }
  mining = std::make_unique<rpc::RpcServer>(options.mining_port, options.mining_bind);
  mining->set_components(components());
  mining->register_mining_handlers();
  for (const std::string& address : options.rpc_trust) {
    mining->trust_address(address);
  }
  if (options.mining_bind != kAnyAddress) {
    mining->trust_address(options.mining_bind);  // whence this machine's own miners come
  }
  mining->serve_trusted_only();
  return mining->start();
}

bool Node::State::start_network() {
  if (!core->network.start(!options.no_listen)) {
    return false;
  }
  if (!options.connect.empty()) {
    return true;  // nobody else is dialled
  }
  for (const std::string& host_port : options.seed_nodes) {
    std::string host;
    uint16_t port = 0;
    if (network::utils::parse_address(host_port, host, port)) {
      core->network.add_seed_node(host, port);
    }
  }
  return true;
}

void Node::State::announce() {
  const ChainStatus status = core->chain.get_status();
  say("Ready: height " + std::to_string(status.best_height) + ", tip " + status.best_hash.to_hex() + ", peers' port " +
      std::to_string(options.port) + (core->network.is_listening() ? "" : " (not listening)") + ", RPC port " +
      std::to_string(rpc->get_port()));
  notify_service_manager("READY=1");
}

void Node::State::watch() {
  do {
    look_around();
  } while (!stop.wait(kWatchPeriodMs));
}

void Node::State::look_around() {
  const ChainStatus status = core->chain.get_status();
  if (status.broken) {
    complain("The chain state is lost and the node stops; the next start rebuilds it from the block files");
    stop.request(kExitFailed);
  }
  NodeHealth health;
  health.free_disk_bytes = free_disk_bytes(options.data_dir);
  health.clock_offset_s = core->network.get_clock_offset_s();
  if (status.branch_refused_for_depth) {
    health.refused_branch = status.branch_refused_for_depth->to_hex();
  }
  health.storing_fails = status.storing_fails;
  if (!options.no_listen && !core->network.is_listening()) {
    health.deaf_port = options.port;
  }
  const int64_t now_ms = elapsed_ms(start_time);
  for (const std::string& text : warnings->update(health, now_ms)) {
    complain("Warning: " + text);
  }
  if (const auto line = progress.update(status.best_height, core->network.get_best_known_height(), now_ms)) {
    say(*line);
  }
  check_disk(health.free_disk_bytes);
}

void Node::State::check_disk(const std::optional<uint64_t>& free_bytes) {
  if (free_bytes && *free_bytes < kFreeDiskStopBytes) {
    complain("Stopping: only " + std::to_string(*free_bytes / kMegabyte) + " MB of disk are free in " +
             options.data_dir + ", " + std::to_string(kFreeDiskStopBytes / kMegabyte) + " MB are needed");
    stop.request(kExitFailed);
  }
}

void Node::State::shut_down() {
  const Clock::time_point begin = Clock::now();
  notify_service_manager("STOPPING=1");
  say("Stopping...");
  core->chain.request_stop();
  const std::unique_ptr<rpc::RpcServer>* const servers[] = {&mining, &rpc};
  for (const auto* server : servers) {
    if (*server) {
      (*server)->stop();
    }
  }
  core->network.stop();
  if (is_chain_open && !core->chain.flush_state() && !core->chain.get_status().broken) {
    complain("Warning: the state could not be written; the block files and the last written state are enough");
  }
  if (is_pool_loaded) {
    core->pool.close();  // calls may still be under way
    save_mempool(core->pool, options.data_dir, kSaveTimeMs);
  }
  bool ended = core->network.is_finished();
  for (const auto* server : servers) {
    const int64_t left_ms = std::clamp<int64_t>(kStopTimeMs - elapsed_ms(begin), 0, kConnectionWaitMs);
    ended = (!*server || (*server)->wait_for_connections(left_ms)) && ended;
  }
  say("Stopped");
  if (!ended) {
    _exit(stop.exit_status());  // destroys nothing under a thread that still runs
  }
}

}  // namespace norvel::node
