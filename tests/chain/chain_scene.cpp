#include "chain/chain_scene.h"

namespace norvel {

ChainScene::ChainScene(ChainOptions options, PoolSink* sink, std::string directory)
    : options_(options), sink_(sink), path_(directory.empty() ? directory_.emplace().path() : std::move(directory)) {
  reopen();
}

ChainOptions small_options(uint32_t distribution_interval) {
  ChainOptions options;
  options.distribution_interval = distribution_interval;
  options.verified_input_count = 4'096;
  return options;
}

void ChainScene::reopen() {
  chain_.reset();
  chain_ = std::make_unique<Blockchain>(path_, options_);
  chain_->set_pool_sink(sink_);
  std::string error;
  ASSERT_TRUE(chain_->initialize(error)) << error;
}

void ChainScene::add(const Block& block) {
  std::string error;
  ASSERT_TRUE(chain_->add_block(block, error)) << "height " << block.height << ": " << error;
}

void ChainScene::add_all(const std::vector<Block>& blocks) {
  for (const Block& block : blocks) {
    add(block);
  }
}

Block ChainScene::extend(const ChildOptions& options) {
  const Block block = make_child(tip(), options);
  add(block);
  return block;
}

std::string ChainScene::refusal(const Block& block) {
  const Bytes before = chain_->get_snapshot_bytes();
  std::string error;
  EXPECT_FALSE(chain_->add_block(block, error));
  EXPECT_EQ(chain_->get_snapshot_bytes(), before) << error;
  return error;
}

Block ChainScene::block_at(uint32_t height) {
  return chain_->load_block_from_disk(chain_->get_block_hash(height).value()).value();
}

Bytes ChainScene::replayed_snapshot() {
  const TemporaryDirectory other;
  Blockchain replay(other.path(), options_);
  std::string error;
  EXPECT_TRUE(replay.initialize(error)) << error;
  const Blockchain::WriteScope scope(replay);
  for (uint32_t height = 1; height <= chain_->get_best_height(); ++height) {
    EXPECT_TRUE(replay.add_block(block_at(height), error)) << "height " << height << ": " << error;
  }
  return replay.get_snapshot_bytes();
}

}  // namespace norvel
