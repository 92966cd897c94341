// A chain in a directory of its own with its pool, for targets that feed a live
// node. It lives as long as the process: what an input leaves behind, the next
// ones meet.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "chain/blockchain.h"
#include "fuzz_target.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"

namespace norvel {

class ScratchDirectory {
 public:
  ScratchDirectory() { require(::mkdtemp(path_.data()) != nullptr); }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "norvel-fuzz-XXXXXX").string();
};

struct LiveChain {
  LiveChain() {
    std::string error;
    require(chain->initialize(error));
    chain->set_pool_sink(&updater);
  }
  ~LiveChain() { chain->set_pool_sink(nullptr); }
  LiveChain(const LiveChain&) = delete;
  LiveChain& operator=(const LiveChain&) = delete;

  ScratchDirectory directory;
  std::shared_ptr<Blockchain> chain = [this] {
    ChainOptions options;
    options.verified_input_count = 4'096;
    return std::make_shared<Blockchain>(directory.path(), options);
  }();
  std::shared_ptr<Mempool> pool = std::make_shared<Mempool>(5'000'000);
  PoolUpdater updater{*chain, *pool};
};

}  // namespace norvel
