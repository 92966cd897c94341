// The retarget rule: which compact bits the next block of a chain must carry.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "core/block_header.h"

namespace norvel::consensus {

struct DifficultyConfig {
  uint32_t retarget_interval = 6;  // blocks between adjustments; 0 never adjusts
  uint32_t target_spacing = 10;    // intended seconds per block
  bool fixed_difficulty = false;   // every block carries the hardest bits
};

// The configuration of the process. Not locked: set once at start-up, before
// other threads run.
extern DifficultyConfig g_difficulty_config;
void set_difficulty_config(const DifficultyConfig& config);
const DifficultyConfig& get_difficulty_config();

using HeaderByHeight = std::function<std::optional<BlockHeader>(uint32_t height)>;

// Whether an adjustment is reported; a node that replays its chain is silent.
enum class RetargetReport { PRINT, SILENT };

// The bits for block `height` + 1 on a tip at `height` that carries
// `current_bits`. An adjustment fetches two headers through `get_header` and is
// reported on standard error.
uint32_t calculate_next_difficulty_for_chain(const HeaderByHeight& get_header, uint32_t height, uint32_t current_bits,
                                             RetargetReport report = RetargetReport::PRINT);

}  // namespace norvel::consensus
