// One mining session: connects to the node, installs the Miner's callbacks,
// waits until mining ends, and prints the closing statistics.
//
// Threads: made and run on the main thread; the callbacks run on the Miner's
// threads and share Status with it.

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "core/block.h"
#include "core/sync.h"
#include "miner/options.h"
#include "mining/miner.h"
#include "rpc/client.h"

namespace norvel::miner {

// True from start; cleared by the signal handler, polled by the wait loop and
// by exchanges with the node; a late look costs one poll.
extern std::atomic<bool> g_running;

// Made after the connection test; read by the signal handler.
extern std::unique_ptr<Miner> g_miner;

// Made before the connection test; used by the callbacks.
extern std::shared_ptr<rpc::RpcClient> g_rpc_client;

// What the callbacks tell each other and the dashboard. Safe from any thread.
class Status {
 public:
  struct Values {
    uint32_t height = 0;
    uint32_t bits = 0x1b00ffff;
    uint32_t blocks_found = 0;  // accepted by the node
    std::string node = "Connected";
  };

  void set_work(uint32_t height, uint32_t bits) EXCLUDES(mutex_);
  void set_rpc_error() EXCLUDES(mutex_);
  void count_block() EXCLUDES(mutex_);
  void set_height(uint32_t height) EXCLUDES(mutex_);
  Values get() const EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;  // leaf
  Values values_ GUARDED_BY(mutex_);
};

class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The whole session; returns the program's exit status.
  int run();

 private:
  bool connect();
  void create_miner();
  void wait_until_stopped();
  void print_closing() const;

  Block fetch_block();
  void report_block(const Block& block);
  void draw_dashboard(const MiningStats& stats);

  const Options options_;
  const std::thread::id main_thread_ = std::this_thread::get_id();
  Status status_;
};

}  // namespace norvel::miner
