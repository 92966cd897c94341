#include "miner/session.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>

#include "core/console.h"
#include "miner/dashboard.h"
#include "miner/stop_signals.h"
#include "miner/template_block.h"

namespace norvel::miner {

namespace {

// How long a submission and the block count after it may take once the miner is
// told to stop: a found block is worth a short wait.
constexpr auto kSubmitGrace = std::chrono::seconds(5);

// An exchange on the main thread: lets signals in and ends when one came.
rpc::ExchangeControl main_thread_control() {
  return {.cut = [] { return !g_running; }, .wait_mask = &stop_signals::waiting_mask()};
}

// Ends an exchange kSubmitGrace after the Miner was told to stop. The copies of
// one control share the moment at which that was first seen.
rpc::ExchangeControl submit_control() {
  using Clock = std::chrono::steady_clock;
  const auto deadline = std::make_shared<std::optional<Clock::time_point>>();
  return {.cut = [deadline] {
    if (!g_miner->stop_requested()) {
      return false;
    }
    if (!*deadline) {
      *deadline = Clock::now() + kSubmitGrace;
    }
    return Clock::now() >= **deadline;
  }};
}

}  // namespace

std::atomic<bool> g_running{true};
std::unique_ptr<Miner> g_miner;
std::shared_ptr<rpc::RpcClient> g_rpc_client;

void Status::set_work(uint32_t height, uint32_t bits) {
  const MutexLock lock(mutex_);
  values_.height = height;
  values_.bits = bits;
  values_.node = "Connected";
}

void Status::set_rpc_error() {
  const MutexLock lock(mutex_);
  values_.node = "RPC Error";
}

void Status::count_block() {
  const MutexLock lock(mutex_);
  ++values_.blocks_found;
}

void Status::set_height(uint32_t height) {
  const MutexLock lock(mutex_);
  values_.height = height;
}

Status::Values Status::get() const {
  const MutexLock lock(mutex_);
  return values_;
}

Session::~Session() {
  // Its callbacks use this object, and g_miner until the last worker is joined.
  if (g_miner) {
    g_miner->stop();
    g_miner.reset();
  }
}

int Session::run() {
  if (!connect()) {
    return 1;
  }
  create_miner();
  console::write_out("Starting mining...\nUsing " + std::to_string(g_miner->thread_count()) + " threads\n\n");
  console::write_out("\x1b[2J\x1b[H");
  print_banner();
  if (!g_miner->start()) {
    console::error_line("Failed to start miner!");
    return 1;
  }
  console::write_out("[Miner] Mining started successfully!\n[Miner] Press Ctrl+C to stop\n\n");
  wait_until_stopped();
  g_miner->stop();
  print_closing();
  stop_signals::ignore();
  return 0;
}

bool Session::connect() {
  console::write_out("Connecting to Norvel Core node...\n");
  g_rpc_client = std::make_shared<rpc::RpcClient>(options_.rpc_host, options_.rpc_port);
  const bool connected = g_rpc_client->test_connection(main_thread_control());
  stop_signals::let_in();
  if (!connected || !g_running) {
    console::error_line("Failed to connect to RPC server at " + options_.rpc_host + ":" +
                        std::to_string(options_.rpc_port) + "\nMake sure norveld is running!");
    return false;
  }
  const std::optional<uint32_t> height = g_rpc_client->get_block_count(main_thread_control());
  stop_signals::let_in();
  if (!height || !g_running) {
    console::error_line("Failed to get block count from node!");
    return false;
  }
  console::write_out("Connected successfully! Current height: " + std::to_string(*height) + "\n\n");
  return true;
}

void Session::create_miner() {
  g_miner = std::make_unique<Miner>(static_cast<uint64_t>(options_.threads));
  g_miner->mining_address = options_.mining_address;
  g_miner->callbacks.on_block_found = [this](const Block& block) { report_block(block); };
  g_miner->callbacks.on_stats_update = [this](const MiningStats& stats) { draw_dashboard(stats); };
  g_miner->callbacks.get_block_template = [this] { return fetch_block(); };
}

void Session::wait_until_stopped() {
  while (g_running && g_miner->running) {
    stop_signals::sleep_one_second();
  }
}

void Session::print_closing() const {
  console::write_out(closing_text(MiningStats(g_miner->stats), status_.get().blocks_found));
}

Block Session::fetch_block() {
  // The first template is fetched by start() on the main thread, the others by workers.
  const rpc::ExchangeControl control = std::this_thread::get_id() == main_thread_
                                           ? main_thread_control()
                                           : rpc::ExchangeControl{.cut = [] { return g_miner->stop_requested(); }};
  const auto block_template = g_rpc_client->get_block_template(options_.mining_address, control);
  if (!block_template) {
    status_.set_rpc_error();
    throw std::runtime_error("Failed to get block template from node");
  }
  if (g_running && !g_miner->stop_requested()) {  // otherwise the request was cut
    status_.set_work(block_template->height - 1, block_template->bits);
  }
  return make_block(*block_template, options_.mining_address);
}

void Session::report_block(const Block& block) {
  console::write_out(block_found_text(block));
  const rpc::ExchangeControl control = submit_control();
  std::string error;
  if (!g_rpc_client->submit_block(block, error, control)) {
    console::write_out(block_rejected_text(error));
    return;
  }
  status_.count_block();
  const std::optional<uint32_t> chain_height = g_rpc_client->get_block_count(control);
  if (chain_height) {
    status_.set_height(*chain_height);
  }
  console::write_out(block_accepted_text(chain_height));
}

void Session::draw_dashboard(const MiningStats& stats) {
  const Status::Values values = status_.get();
  print_mining_dashboard(stats, values.height, values.bits, values.node, values.blocks_found);
}

}  // namespace norvel::miner
