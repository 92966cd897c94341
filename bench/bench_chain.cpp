#include "bench_chain.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string_view>

namespace norvel::bench {

bool is_full_size() {
  const char* value = std::getenv("NORVEL_BENCH_FULL");
  return value != nullptr && std::string_view(value) == "1";
}

ScratchDirectory::ScratchDirectory() {
  const char* root = std::getenv("NORVEL_BENCH_DIRECTORY");
  if (root == nullptr) {
    path_ = in_memory_.emplace().path();
    return;
  }
  path_ = std::string(root) + "/norvel-bench-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + path_);
  }
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

QuietConsole::QuietConsole() : out_(std::cout.rdbuf(nullptr)), error_(std::cerr.rdbuf(nullptr)) {}

QuietConsole::~QuietConsole() {
  std::cout.rdbuf(out_);
  std::cerr.rdbuf(error_);
}

std::unique_ptr<Blockchain> open_chain(const std::string& directory) {
  auto chain = std::make_unique<Blockchain>(directory);
  std::string error;
  if (!chain->initialize(error)) {
    throw std::runtime_error(error);
  }
  return chain;
}

void add(Blockchain& chain, const Block& block) {
  std::string error;
  if (!chain.add_block(block, error)) {
    throw std::runtime_error("height " + std::to_string(block.height) + ": " + error);
  }
}

Block block_at(const Blockchain& chain, uint32_t height) {
  return chain.load_block_from_disk(chain.get_block_hash(height).value()).value();
}

void grow(Blockchain& chain, uint32_t height) {
  Block tip = block_at(chain, chain.get_best_height());
  const Blockchain::WriteScope scope(chain);
  while (tip.height < height) {
    tip = make_child(tip);
    add(chain, tip);
  }
}

std::string verdict(bool right, const std::string& result) {
  return right ? result : "WRONG RESULT: " + result;
}

}  // namespace norvel::bench
