#include "support/chain_builder.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "consensus/difficulty.h"
#include "script/script.h"

namespace norvel {

namespace {

constexpr uint64_t kSpacingSeconds = 10;

}  // namespace

void mine(Block& block) {
  block.header.nonce = 0;
  while (!block.header.check_proof_of_work()) {
    ++block.header.nonce;
  }
  block.invalidate_cache();
}

void seal(Block& block) {
  for (Transaction& tx : block.transactions) {
    tx.invalidate_cache();
  }
  block.update_merkle_root();
  mine(block);
}

Block make_child(const Block& parent, const ChildOptions& options) {
  Block block;
  block.height = parent.height + 1;
  block.header.prev_hash = parent.get_hash();
  block.header.timestamp = parent.header.timestamp + kSpacingSeconds;
  block.header.bits = difficulty::kEasiestBits;
  block.transactions.push_back(Transaction::create_coinbase_tx(
      sample_key(options.miner).address, block_subsidy(block.height), options.fees, block.height, options.message));
  block.transactions.front().timestamp = block.header.timestamp;
  block.transactions.insert(block.transactions.end(), options.txs.begin(), options.txs.end());
  seal(block);
  return block;
}

std::vector<Block> make_branch(const Block& parent, size_t count, const ChildOptions& options) {
  std::vector<Block> branch;
  branch.reserve(count);
  while (branch.size() < count) {
    branch.push_back(make_child(branch.empty() ? parent : branch.back(), options));
  }
  return branch;
}

std::pair<OutPoint, TxOut> output_of(const Transaction& tx, size_t output_index) {
  return {{tx.get_txid(), static_cast<uint32_t>(output_index)}, tx.outputs.at(output_index)};
}

Transaction pay(const SampleKey& from, const std::vector<std::pair<OutPoint, TxOut>>& inputs,
                const std::vector<int64_t>& values, uint8_t to) {
  Transaction tx;
  tx.timestamp = kGenesisTimestamp;
  for (const auto& [outpoint, output] : inputs) {
    tx.inputs.emplace_back().prevout = outpoint;
  }
  for (const int64_t value : values) {
    tx.outputs.emplace_back(value, sample_key(to).pubkey_hash);
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    tx.sign_input(i, from.private_key, Script(inputs[i].second.locking_script()));
  }
  return tx;
}

namespace {

// In memory where there is room: the stores sync all the time.
std::filesystem::path scratch_root() {
  constexpr uintmax_t kRoomBytes = uintmax_t{1} << 30;
  std::error_code failure;
  const auto space = std::filesystem::space("/dev/shm", failure);
  return !failure && space.available >= kRoomBytes ? "/dev/shm" : std::filesystem::temp_directory_path();
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (scratch_root() / "norvel-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace norvel
