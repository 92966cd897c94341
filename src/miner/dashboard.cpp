#include "miner/dashboard.h"

#include <iomanip>
#include <sstream>
#include <string_view>

#include "consensus/difficulty.h"
#include "core/console.h"
#include "core/number_text.h"

namespace norvel::miner {

namespace {

constexpr double kMega = 1'000'000.0;
constexpr uint64_t kHashesPerMega = 1'000'000;
constexpr uint64_t kSecondsPerMinute = 60;
constexpr int kFigureWidth = 10;
constexpr int kStatusWidth = 35;
constexpr size_t kHashDigitsShown = 56;

std::string repeat(std::string_view piece, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += piece;
  }
  return text;
}

// A line of `width` inner columns in the double frame.
std::string double_top(size_t width) {
  return "╔" + repeat("═", width) + "╗\n";
}

std::string double_bottom(size_t width) {
  return "╚" + repeat("═", width) + "╝\n";
}

}  // namespace

void print_banner() {
  console::write_out("\n" + double_top(42) +
                     "║         NORVEL NETWORK MINER v10.1.0     ║\n"
                     "║     High-Performance CPU Mining Tool     ║\n" +
                     double_bottom(42) + "\n");
}

void clear_line() {
  console::write_out("\r\x1b[K");
}

std::string dashboard_text(const MiningStats& stats, uint32_t height, uint32_t bits, const std::string& status,
                           uint32_t blocks_found) {
  const auto figure = std::setw(kFigureWidth);
  std::ostringstream text;
  text << "\x1b[s\x1b[10;0H\x1b[J";
  text << "┌" << repeat("─", 61) << "┐\n";
  text << "│                    MINING DASHBOARD                         │\n";
  text << "├" << repeat("─", 61) << "┤\n";
  text << "│ Hashrate:                " << figure << to_fixed(stats.hashrate / kMega, 2)
       << " MH/s                    │\n";
  text << "│ Block Height:       " << figure << height << "                              │\n";
  text << "│ Difficulty:             " << figure << to_fixed(difficulty::get_difficulty(bits), 4)
       << "                          │\n";
  text << "│ Blocks Found:       " << figure << blocks_found << "                              │\n";
  text << "│ Total Hashes:          " << figure << stats.total_hashes / kHashesPerMega
       << " M                         │\n";
  text << "│ Uptime:              " << figure << stats.uptime_seconds / kSecondsPerMinute
       << " minutes                     │\n";
  text << "│ Node Status:         " << std::left << std::setw(kStatusWidth) << status << "    │\n";
  text << "└" << repeat("─", 61) << "┘\n";
  text << "\x1b[u";
  return text.str();
}

void print_mining_dashboard(const MiningStats& stats, uint32_t height, uint32_t bits, const std::string& status,
                            uint32_t blocks_found) {
  console::write_out_fixed(dashboard_text(stats, height, bits, status, blocks_found));
}

std::string block_found_text(const Block& block) {
  return "\n\n" + double_top(62) + "║                         BLOCK FOUND!                         ║\n" +
         double_bottom(62) + "Block Hash:   " + block.get_hash().to_hex().substr(0, kHashDigitsShown) +
         "...\n"
         "Height:       " +
         std::to_string(block.height) +
         "\n"
         "Transactions: " +
         std::to_string(block.transactions.size()) +
         "\n"
         "Nonce:        " +
         std::to_string(block.header.nonce) +
         "\n"
         "\nSubmitting block to node...\n";
}

std::string block_accepted_text(std::optional<uint32_t> chain_height) {
  std::string text = "Block accepted by node!\n";
  if (chain_height) {
    text += "New chain height: " + std::to_string(*chain_height) + "\n";
  }
  return text + "\nResuming mining...\n";
}

std::string block_rejected_text(const std::string& reason) {
  return "❌ Block rejected: " + console::printable(reason) + "\n\nResuming mining...\n";
}

std::string closing_text(const MiningStats& stats, uint32_t blocks_found) {
  return "\n\n" + double_top(42) + "║         Mining Session Ended             ║\n" + double_bottom(42) +
         "\nFinal Statistics:\n"
         "  Total Hashes:    " +
         std::to_string(stats.total_hashes) +
         "\n"
         "  Blocks Found:    " +
         std::to_string(blocks_found) +
         "\n"
         "  Avg Hashrate:    " +
         to_fixed(stats.hashrate / kMega, 2) +
         " MH/s\n"
         "  Total Runtime:   " +
         std::to_string(stats.uptime_seconds / kSecondsPerMinute) + " minutes\n\n";
}

}  // namespace norvel::miner
