#include "consensus/retarget.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "consensus/difficulty.h"
#include "support/captured_stderr.h"

namespace norvel::consensus {
namespace {

constexpr uint32_t kBits = 0x1c100000;

class Retarget : public testing::Test {
 protected:
  void TearDown() override { set_difficulty_config(DifficultyConfig()); }

  // The bits after a tip at `height`, with what was written.
  uint32_t next_bits(uint32_t height) {
    const CapturedStderr errors;
    const uint32_t next = calculate_next_difficulty_for_chain(
        [&](uint32_t at) -> std::optional<BlockHeader> {
          fetched_.push_back(at);
          BlockHeader header;
          header.timestamp = timestamps_[at];
          return header.timestamp == 0 ? std::nullopt : std::optional(header);
        },
        height, kBits);
    text_ = errors.text();
    return next;
  }

  std::map<uint32_t, uint64_t> timestamps_;
  std::vector<uint32_t> fetched_;
  std::string text_;
};

TEST_F(Retarget, HappensAtMultiplesOfTheInterval) {
  constexpr uint32_t kSlower = 0x1c119999;
  for (uint32_t height = 0; height < 40; ++height) {
    timestamps_[height] = 1'000 * (height + 1);
  }
  const struct {
    const char* label;
    DifficultyConfig config;
    uint32_t height;
    uint32_t want;
    std::vector<uint32_t> fetched;
  } rows[] = {
      {"last block of the first interval", {}, 5, 0x1e0fffff, {}},
      {"first tip that keeps its bits", {}, 6, kBits, {}},
      {"last tip before an adjustment", {}, 10, kBits, {}},
      {"first adjustment", {}, 11, kSlower, {5, 11}},
      {"missing tip", {}, 41, kBits, {35, 41}},
      {"fixed at genesis", {6, 10, true}, 0, 0x1b00ffff, {}},
      {"no interval", {0, 10, false}, 0, kBits, {}},
      {"expected time that wraps to nothing", {2, 0x80000000, false}, 11, kBits, {}},
      {"interval of one", {1, 10, false}, 1, kSlower, {0, 1}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    set_difficulty_config(row.config);
    fetched_.clear();
    EXPECT_EQ(next_bits(row.height), row.want);
    EXPECT_EQ(fetched_, row.fetched);
    EXPECT_EQ(text_ == "[Consensus] Warning: Could not fetch blocks for difficulty calculation\n", row.height > 40);
    EXPECT_EQ(text_.empty(), row.fetched.empty());
  }
}

TEST_F(Retarget, MeasuresClampsAndReports) {
  const std::string harder = "72817.7392\n  Difficulty change:  1.11x (harder)\n";
  const std::string easier = "59578.1560\n  Difficulty change:  0.91x (easier)\n";
  const struct {
    uint64_t span;
    std::string warning;
    std::string used;
    std::string ratio;
    std::string difficulty;
  } rows[] = {
      {240, "", "240", "4.00x (too slow)", easier},
      {54, "", "54", "0.90x (on target)", harder},
      {60, "", "60", "1.00x (on target)", "65535.9375\n  Difficulty change:  1.00x\n"},
      {66, "", "66", "1.10x (on target)", easier},
      {67, "", "67", "1.12x (too slow)", easier},
      {14, "too small (< 15s), clamping to minimum", "15", "0.25x (too fast)", harder},
      {~uint64_t{0}, "too large (> 240s), clamping to maximum", "240", "4.00x (too slow)", easier},  // clock went back
  };
  for (const auto& row : rows) {
    timestamps_ = {{5, 1'000}, {11, 1'000 + row.span}};
    EXPECT_EQ(next_bits(11), difficulty::calculate_next_difficulty(kBits, std::stoull(row.used), 60));
    const std::string span = std::to_string(row.span);
    std::string want = "[Consensus] Measuring time between block 5 (timestamp: 1000) and block 11 (timestamp: " +
                       std::to_string(1'000 + row.span) + ")\n[Consensus] Raw time span measured: " + span +
                       " seconds\n";
    if (!row.warning.empty()) {
      want += "[Consensus] Warning: Actual time span (" + span + "s) " + row.warning + "\n";
    }
    want += "[Consensus] Difficulty Adjustment at height 12\n  Actual time span:   " + row.used +
            "s\n  Expected time span: 60s\n  Time ratio:         " + row.ratio +
            "\n  Old difficulty:     65535.9375\n  New difficulty:     " + row.difficulty;
    EXPECT_EQ(text_, want);
  }
}

// A chain whose blocks take difficulty / hash rate times `draw()` of the target
// spacing; the rate jumps from 500 to 5,000 and back a third of the way each.
// Returns the mean block time, in seconds, of the last 2,000 blocks of a third.
std::vector<double> simulate(const std::function<double()>& draw) {
  constexpr uint32_t kThird = 3'334;
  constexpr uint32_t kMeasured = 2'000;
  const CapturedStderr quiet;
  std::vector<BlockHeader> chain(1);
  chain[0].bits = difficulty::kEasiestBits;
  chain[0].timestamp = 1'704'067'200;
  auto clock = static_cast<double>(chain[0].timestamp);
  std::vector<double> means;
  double measured_from = 0;
  for (uint32_t height = 1; height <= 3 * kThird; ++height) {
    BlockHeader header;
    header.bits = calculate_next_difficulty_for_chain([&](uint32_t at) { return std::optional(chain.at(at)); },
                                                      height - 1, chain.back().bits);
    EXPECT_TRUE(difficulty::verify_bits(header.bits));
    const double rate = (height - 1) / kThird == 1 ? 5'000 : 500;
    clock += 10 * draw() * difficulty::get_difficulty(header.bits) / rate;
    header.timestamp = static_cast<uint64_t>(clock);
    chain.push_back(header);
    if (height % kThird == kThird - kMeasured) {
      measured_from = clock;
    } else if (height % kThird == 0) {
      means.push_back((clock - measured_from) / kMeasured);
    }
  }
  return means;
}

TEST(RetargetSimulation, RegularBlocksSettleAtTheTargetSpacing) {
  for (const double mean : simulate([] { return 1.0; })) {
    EXPECT_NEAR(mean, 10.0, 0.2);
  }
}

// Random block times settle a little higher: a step to a longer time is cut at
// 11/10, one to a shorter at 10/11.
TEST(RetargetSimulation, RandomBlocksSettleSlightlyAboveIt) {
  std::mt19937_64 random(7);
  std::vector<double> sums(3);
  constexpr int kRuns = 10;
  for (int run = 0; run < kRuns; ++run) {
    const std::vector<double> means =
        simulate([&] { return -std::log1p(-static_cast<double>(random() >> 11) * 0x1p-53); });
    for (size_t i = 0; i < sums.size(); ++i) {
      sums[i] += means.at(i);
    }
  }
  for (const double sum : sums) {
    EXPECT_GT(sum / kRuns, 10.5);
    EXPECT_LT(sum / kRuns, 11.5);
  }
}

}  // namespace
}  // namespace norvel::consensus
