#include "miner/template_block.h"

#include <gtest/gtest.h>

#include <limits>

namespace norvel::miner {

namespace {

// The rest of the block is compared byte for byte by the functional tests.
TEST(TemplateBlock, TimestampIsTheLaterOfClockAndParentPlusOne) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const struct {
    const char* label;
    int64_t previous;
    int64_t current;
    uint64_t want;
  } rows[] = {
      {"clock ahead", 100, 200, 200},
      {"clock equal to the parent", 200, 200, 201},
      {"parent ahead", 300, 200, 301},
      {"both absent", 0, 0, 1},
      {"parent at the limit", kMax, 200, static_cast<uint64_t>(kMax)},
      {"both negative", -50, -60, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    rpc::BlockTemplate offered;
    offered.previous_block_time = row.previous;
    offered.current_time = row.current;
    EXPECT_EQ(make_block(offered, "1A1zP1eP5QGefi2DMPTfTL5SLmv7DivfNa").header.timestamp, row.want);
  }
}

}  // namespace

}  // namespace norvel::miner
