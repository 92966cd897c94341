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
  uint32_t next_bits(uint32_t height, uint32_t bits = kBits) {
    const CapturedStderr errors;
    const uint32_t next = calculate_next_difficulty_for_chain(
        [&](uint32_t at) -> std::optional<BlockHeader> {
          fetched_.push_back(at);
          const auto found = timestamps_.find(at);
          if (found == timestamps_.end()) {
            return std::nullopt;
          }
          BlockHeader header;
          header.timestamp = found->second;
          return header;
        },
        height, bits);
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
    timestamps_[height] = 1'000 * height;
  }
  const struct {
    const char* label;
    DifficultyConfig config;
    uint32_t height;
    uint32_t want;
    std::vector<uint32_t> fetched;
  } rows[] = {
      {"genesis as tip", {}, 0, 0x1e0fffff, {}},
      {"last block of the first interval", {}, 5, 0x1e0fffff, {}},
      {"first tip that keeps its bits", {}, 6, kBits, {}},
      {"last tip before an adjustment", {}, 10, kBits, {}},
      {"first adjustment", {}, 11, kSlower, {5, 11}},
      {"after it", {}, 12, kBits, {}},
      {"second adjustment", {}, 17, kSlower, {11, 17}},
      {"missing tip", {}, 41, kBits, {35, 41}},
      {"both missing", {}, 101, kBits, {95, 101}},
      {"fixed", {6, 10, true}, 11, 0x1b00ffff, {}},
      {"fixed at genesis", {6, 10, true}, 0, 0x1b00ffff, {}},
      {"no interval", {0, 10, false}, 0, kBits, {}},
      {"no interval, higher", {0, 10, false}, 11, kBits, {}},
      {"no spacing", {6, 0, false}, 11, kBits, {}},
      {"expected time that wraps to nothing", {2, 0x80000000, false}, 11, kBits, {}},
      {"interval of one at genesis", {1, 10, false}, 0, 0x1e0fffff, {}},
      {"interval of one", {1, 10, false}, 1, kSlower, {0, 1}},
      {"tip as high as the interval, not due", {12, 10, false}, 12, kBits, {}},
      {"tip one below the interval", {12, 10, false}, 11, 0x1e0fffff, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    set_difficulty_config(row.config);
    fetched_.clear();
    EXPECT_EQ(next_bits(row.height), row.want);
    EXPECT_EQ(fetched_, row.fetched);
    const bool missing = row.height > 40;
    EXPECT_EQ(text_ == "[Consensus] Warning: Could not fetch blocks for difficulty calculation\n", missing);
    EXPECT_EQ(text_.empty(), row.fetched.empty());
  }
}

TEST_F(Retarget, MeasuresClampsAndReports) {
  const std::string too_long = "too large (> 240s), clamping to maximum";
  struct Outcome {
    uint32_t bits;
    const char* difficulty;
    const char* change;
  };
  const Outcome same{kBits, "65535.9375", "1.00x"};
  const Outcome harder{0x1c0e6666, "72817.7392", "1.11x (harder)"};
  const Outcome easier{0x1c119999, "59578.1560", "0.91x (easier)"};
  const Outcome easiest{0x1e0fffff, "1.0000", "1.00x"};
  const Outcome hardest{0x1b00ffff, "268439296.0586", "1.00x"};
  const struct {
    const char* label;
    uint64_t span;
    Outcome before;
    std::string warning;
    const char* used;
    const char* ratio;
    Outcome after;
  } rows[] = {
      {"on target", 60, same, "", "60", "1.00x (on target)", same},
      {"lowest on target", 54, same, "", "54", "0.90x (on target)", harder},
      {"too fast", 53, same, "", "53", "0.88x (too fast)", harder},
      {"highest on target", 66, same, "", "66", "1.10x (on target)", easier},
      {"too slow", 67, same, "", "67", "1.12x (too slow)", easier},
      {"shortest span", 15, same, "", "15", "0.25x (too fast)", harder},
      {"a second less", 14, same, "too small (< 15s), clamping to minimum", "15", "0.25x (too fast)", harder},
      {"longest span", 240, same, "", "240", "4.00x (too slow)", easier},
      {"a second more", 241, same, too_long, "240", "4.00x (too slow)", easier},
      {"tip older than the earlier block", ~uint64_t{0}, same, too_long, "240", "4.00x (too slow)", easier},
      {"easiest target", 66, easiest, "", "66", "1.10x (on target)", easiest},
      {"hardest target", 54, hardest, "", "54", "0.90x (on target)", hardest},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    timestamps_ = {{5, 1'000}, {11, 1'000 + row.span}};
    EXPECT_EQ(next_bits(11, row.before.bits), row.after.bits);
    const std::string span = std::to_string(row.span);
    std::string want = "[Consensus] Measuring time between block 5 (timestamp: 1000) and block 11 (timestamp: " +
                       std::to_string(1'000 + row.span) + ")\n[Consensus] Raw time span measured: " + span +
                       " seconds\n";
    if (!row.warning.empty()) {
      want += "[Consensus] Warning: Actual time span (" + span + "s) " + row.warning + "\n";
    }
    want += std::string("[Consensus] Difficulty Adjustment at height 12\n  Actual time span:   ") + row.used +
            "s\n  Expected time span: 60s\n  Time ratio:         " + row.ratio +
            "\n  Old difficulty:     " + row.before.difficulty + "\n  New difficulty:     " + row.after.difficulty +
            "\n  Difficulty change:  " + row.after.change + "\n";
    EXPECT_EQ(text_, want);
  }
}

// The bounds of the span are computed in 32 bits, so that four times a long
// expected time can be less than that time.
TEST_F(Retarget, TheLargestSpanWraps) {
  set_difficulty_config({1, 0x40000001, false});
  timestamps_ = {{0, 0}, {1, 0x40000001}};
  EXPECT_EQ(next_bits(1), difficulty::calculate_next_difficulty(kBits, 4, 0x40000001));
  EXPECT_NE(text_.find("too large (> 4s), clamping to maximum"), std::string::npos);
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
