// What the benches of chain and pool share: sizes, directories, chains to add
// blocks to.
//
// Errors: a chain that does not open or refuses a block throws
// std::runtime_error, which ends the bench. Threads: single-threaded.

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>

#include "chain/blockchain.h"
#include "core/block.h"
#include "support/chain_builder.h"

namespace norvel::bench {

// Whether NORVEL_BENCH_FULL is 1; otherwise the sizes are tiny.
bool is_full_size();

// An empty directory, removed with its content: under NORVEL_BENCH_DIRECTORY
// when that is set, otherwise in memory, where syncing costs next to nothing.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::optional<TemporaryDirectory> in_memory_;
  std::string path_;
};

// Drops both standard streams while it lives: a chain reports every side-chain
// block and retarget.
class QuietConsole {
 public:
  QuietConsole();
  ~QuietConsole();
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;

 private:
  std::streambuf* const out_;
  std::streambuf* const error_;
};

std::unique_ptr<Blockchain> open_chain(const std::string& directory);

void add(Blockchain& chain, const Block& block);

// The active block at `height`.
Block block_at(const Blockchain& chain, uint32_t height);

// Mines blocks onto the tip until it stands at `height`, in one write scope.
void grow(Blockchain& chain, uint32_t height);

// Wall-clock time of one call.
template <typename Work>
double seconds_of(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// What a bench prints of its result.
std::string verdict(bool right, const std::string& result);

}  // namespace norvel::bench
