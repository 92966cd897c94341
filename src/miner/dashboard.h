// What norvel-miner draws: the banner, the dashboard and the block-found
// report. Each text is formatted whole and written in one piece.
//
// Threads: safe from any thread.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/block.h"
#include "mining/mining_stats.h"

namespace norvel::miner {

void print_banner();

// Erases the terminal's current line.
void clear_line();

// Redraws the box from screen row 10 on. Figures wider than their field are
// printed whole. Leaves standard output in fixed notation.
void print_mining_dashboard(const MiningStats& stats, uint32_t height, uint32_t bits, const std::string& status,
                            uint32_t blocks_found);

// The text that print_mining_dashboard() writes.
std::string dashboard_text(const MiningStats& stats, uint32_t height, uint32_t bits, const std::string& status,
                           uint32_t blocks_found);

// The report of a found block, up to its submission.
std::string block_found_text(const Block& block);

// What follows an accepted submission; `chain_height` when the node told it.
std::string block_accepted_text(std::optional<uint32_t> chain_height);

// What follows a refused one; control characters of `reason` are printed as "?".
std::string block_rejected_text(const std::string& reason);

// The closing box and the statistics of the session.
std::string closing_text(const MiningStats& stats, uint32_t blocks_found);

}  // namespace norvel::miner
