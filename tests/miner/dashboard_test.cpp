#include "miner/dashboard.h"

#include <gtest/gtest.h>

namespace norvel::miner {

namespace {

MiningStats make_stats(double hashrate, uint64_t hashes, uint64_t uptime) {
  MiningStats stats;
  stats.hashrate = hashrate;
  stats.total_hashes = hashes;
  stats.uptime_seconds = uptime;
  return stats;
}

TEST(Dashboard, DrawsEveryLineInItsField) {
  EXPECT_EQ(dashboard_text(make_stats(2'500'000, 12'999'999, 119), 77, 0x1b00ffff, "RPC Error", 3),
            "\x1b[s\x1b[10;0H\x1b[J"
            "┌─────────────────────────────────────────────────────────────┐\n"
            "│                    MINING DASHBOARD                         │\n"
            "├─────────────────────────────────────────────────────────────┤\n"
            "│ Hashrate:                      2.50 MH/s                    │\n"
            "│ Block Height:               77                              │\n"
            "│ Difficulty:             268439296.0586                          │\n"
            "│ Blocks Found:                3                              │\n"
            "│ Total Hashes:                  12 M                         │\n"
            "│ Uptime:                       1 minutes                     │\n"
            "│ Node Status:         RPC Error                              │\n"
            "└─────────────────────────────────────────────────────────────┘\n"
            "\x1b[u");
}

TEST(Dashboard, WideValuesPushTheBorderOut) {
  const std::string text = dashboard_text(make_stats(0, 0, 0), 4'294'967'295, 0, std::string(40, 'x'), 0);
  EXPECT_NE(text.find("│ Block Height:       4294967295                              │\n"), std::string::npos);
  EXPECT_NE(text.find("│ Difficulty:                 1.0000                          │\n"), std::string::npos);
  EXPECT_NE(text.find("│ Node Status:         " + std::string(40, 'x') + "    │\n"), std::string::npos);
}

TEST(Closing, RoundsTheRateAndCutsTheMinutes) {
  EXPECT_EQ(closing_text(make_stats(1'234'567.0, 987'654'321, 119), 4),
            "\n\n"
            "╔══════════════════════════════════════════╗\n"
            "║         Mining Session Ended             ║\n"
            "╚══════════════════════════════════════════╝\n"
            "\nFinal Statistics:\n"
            "  Total Hashes:    987654321\n"
            "  Blocks Found:    4\n"
            "  Avg Hashrate:    1.23 MH/s\n"
            "  Total Runtime:   1 minutes\n\n");
}

}  // namespace

}  // namespace norvel::miner
