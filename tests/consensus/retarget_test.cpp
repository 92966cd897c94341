#include "consensus/retarget.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>
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
  const std::tuple<const char*, DifficultyConfig, uint32_t, uint32_t, std::vector<uint32_t>> rows[] = {
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
  for (const auto& [label, config, height, want, fetched] : rows) {
    SCOPED_TRACE(label);
    set_difficulty_config(config);
    fetched_.clear();
    EXPECT_EQ(next_bits(height), want);
    EXPECT_EQ(fetched_, fetched);
    EXPECT_EQ(text_ == "[Consensus] Warning: Could not fetch blocks for difficulty calculation\n", height > 40);
    EXPECT_EQ(text_.empty(), fetched.empty());
  }
}

TEST_F(Retarget, MeasuresClampsAndReports) {
  const std::string harder = "72817.7392\n  Difficulty change:  1.11x (harder)\n";
  const std::string easier = "59578.1560\n  Difficulty change:  0.91x (easier)\n";
  const std::tuple<uint64_t, std::string, std::string, std::string, std::string> rows[] = {
      {240, "", "240", "4.00x (too slow)", easier},
      {54, "", "54", "0.90x (on target)", harder},
      {60, "", "60", "1.00x (on target)", "65535.9375\n  Difficulty change:  1.00x\n"},
      {66, "", "66", "1.10x (on target)", easier},
      {67, "", "67", "1.12x (too slow)", easier},
      {14, "too small (< 15s), clamping to minimum", "15", "0.25x (too fast)", harder},
      {~uint64_t{0}, "too large (> 240s), clamping to maximum", "240", "4.00x (too slow)", easier},  // clock went back
  };
  for (const auto& [seconds, warning, used, ratio, difficulty] : rows) {
    timestamps_ = {{5, 1'000}, {11, 1'000 + seconds}};
    EXPECT_EQ(next_bits(11), norvel::difficulty::calculate_next_difficulty(kBits, std::stoull(used), 60));
    const std::string span = std::to_string(seconds);
    std::string want = "[Consensus] Measuring time between block 5 (timestamp: 1000) and block 11 (timestamp: " +
                       std::to_string(1'000 + seconds) + ")\n[Consensus] Raw time span measured: " + span +
                       " seconds\n";
    if (!warning.empty()) {
      want += "[Consensus] Warning: Actual time span (" + span + "s) " + warning + "\n";
    }
    want += "[Consensus] Difficulty Adjustment at height 12\n  Actual time span:   " + used +
            "s\n  Expected time span: 60s\n  Time ratio:         " + ratio +
            "\n  Old difficulty:     65535.9375\n  New difficulty:     " + difficulty;
    EXPECT_EQ(text_, want);
  }
}

}  // namespace
}  // namespace norvel::consensus
