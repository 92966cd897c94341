#include "consensus/retarget.h"

#include <string>

#include "consensus/difficulty.h"
#include "core/console.h"
#include "core/number_text.h"

namespace norvel::consensus {

namespace {

void say(RetargetReport report, const std::string& line) {
  if (report == RetargetReport::PRINT) {
    console::error_line(line);
  }
}

// `span` within a quarter and four times `expected`; says when it was not.
uint64_t clamp_span(uint64_t span, uint32_t expected, RetargetReport report) {
  const uint32_t minimum = expected / 4;
  const uint32_t maximum = expected * 4;  // in 32 bits, as everywhere this rule is computed
  const std::string measured = "[Consensus] Warning: Actual time span (" + std::to_string(span) + "s) too ";
  if (span < minimum) {
    say(report, measured + "small (< " + std::to_string(minimum) + "s), clamping to minimum");
    return minimum;
  }
  if (span > maximum) {
    say(report, measured + "large (> " + std::to_string(maximum) + "s), clamping to maximum");
    return maximum;
  }
  return span;
}

void report_adjustment(uint64_t height, uint64_t span, uint32_t expected, uint32_t old_bits, uint32_t new_bits) {
  const double ratio = static_cast<double>(span) / expected;
  const double old_difficulty = difficulty::get_difficulty(old_bits);
  const double new_difficulty = difficulty::get_difficulty(new_bits);
  const double change = new_difficulty / old_difficulty;
  const char* pace = ratio < 0.9 ? " (too fast)" : ratio > 1.1 ? " (too slow)" : " (on target)";
  const char* direction = change > 1.0 ? " (harder)" : change < 1.0 ? " (easier)" : "";

  console::error_line("[Consensus] Difficulty Adjustment at height " + std::to_string(height));
  console::error_line("  Actual time span:   " + std::to_string(span) + "s");
  console::error_line("  Expected time span: " + std::to_string(expected) + "s");
  console::error_line("  Time ratio:         " + to_fixed(ratio, 2) + "x" + pace);
  console::error_line("  Old difficulty:     " + to_fixed(old_difficulty, 4));
  console::error_line("  New difficulty:     " + to_fixed(new_difficulty, 4));
  console::error_line("  Difficulty change:  " + to_fixed(change, 2) + "x" + direction);
}

}  // namespace

DifficultyConfig g_difficulty_config;

void set_difficulty_config(const DifficultyConfig& config) {
  g_difficulty_config = config;
}

const DifficultyConfig& get_difficulty_config() {
  return g_difficulty_config;
}

uint32_t calculate_next_difficulty_for_chain(const HeaderByHeight& get_header, uint32_t height, uint32_t current_bits,
                                             RetargetReport report) {
  const DifficultyConfig& config = get_difficulty_config();
  if (config.fixed_difficulty) {
    return difficulty::kHardestBits;
  }
  const uint32_t interval = config.retarget_interval;
  if (interval > height) {
    return difficulty::kEasiestBits;
  }
  const uint64_t next_height = uint64_t{height} + 1;
  const uint32_t expected = interval * config.target_spacing;
  if (interval == 0 || next_height % interval != 0 || expected == 0) {
    return current_bits;
  }
  const std::optional<BlockHeader> first = get_header(height - interval);
  const std::optional<BlockHeader> last = get_header(height);
  if (!first || !last) {
    console::error_line("[Consensus] Warning: Could not fetch blocks for difficulty calculation");
    return current_bits;
  }
  say(report, "[Consensus] Measuring time between block " + std::to_string(height - interval) +
                  " (timestamp: " + std::to_string(first->timestamp) + ") and block " + std::to_string(height) +
                  " (timestamp: " + std::to_string(last->timestamp) + ")");
  // A tip older than the earlier block wraps to a huge span, which the clamp cuts to the maximum.
  const uint64_t measured = last->timestamp - first->timestamp;
  say(report, "[Consensus] Raw time span measured: " + std::to_string(measured) + " seconds");
  const uint64_t span = clamp_span(measured, expected, report);
  const uint32_t new_bits = difficulty::calculate_next_difficulty(current_bits, span, expected);
  if (report == RetargetReport::PRINT) {
    report_adjustment(next_height, span, expected, current_bits, new_bits);
  }
  return new_bits;
}

}  // namespace norvel::consensus
