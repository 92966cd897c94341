// What the node tells while it runs: warnings and the progress line.

#include <gtest/gtest.h>

#include "node/sync_progress.h"
#include "node/warnings.h"

namespace norvel::node {
namespace {

TEST(Warnings, StandAsLongAsTheirCauseAndArePrintedOnceAMinute) {
  const NodeHealth good{1'000'000'000, 600, "", false, {}};
  const NodeHealth full{999'999'999, -600, "", false, {}};
  const NodeHealth late{std::nullopt, 601, "ab", false, {}};
  const struct {
    const char* label;
    NodeHealth health;
    int64_t now_ms;
    size_t want_due;
    size_t want_standing;
  } rows[] = {
      {"nothing", good, 0, 0, 0},
      {"disk", full, 1'000, 1, 1},
      {"not again", full, 60'999, 0, 1},
      {"a minute later", full, 61'000, 1, 1},
      {"gone", good, 62'000, 0, 0},
      {"back within the minute", full, 63'000, 0, 1},
      {"others have minutes of their own", late, 64'000, 2, 2},
      {"all", {1, -601, "ab", true, 8333}, 124'000, 5, 5},
  };
  Warnings warnings;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(warnings.update(row.health, row.now_ms).size(), row.want_due);
    EXPECT_EQ(warnings.standing().size(), row.want_standing);
  }
}

TEST(SyncProgress, TellsGrowthAtMostEveryTenSeconds) {
  const struct {
    uint32_t height;
    uint32_t best_known;
    int64_t now_ms;
    std::optional<std::string> want;
  } rows[] = {
      {100, 1'000, 0, {}},
      {200, 1'000, 9'999, {}},
      {250, 1'000, 10'000, "Synchronising: height 250 of 1000 (25.0%), 15.0 blocks/s"},
      {600, 1'000, 19'000, {}},
      {600, 1'000, 24'000, "Synchronising: height 600 of 1000 (60.0%), 25.0 blocks/s"},
      {600, 4'294'967'295, 34'000, {}},  // stands still
      {1'000, 1'000, 44'000, "In step with the network at height 1000"},
      {1'000, 1'000, 54'000, {}},
      {1'001, 1'002, 64'000, {}},  // a block is on its way
      {1'000, 1'009, 74'000, {}},  // a branch was left
      {1'001, 1'000, 84'000, {}},
  };
  SyncProgress progress;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.now_ms);
    EXPECT_EQ(progress.update(row.height, row.best_known, row.now_ms), row.want);
  }
}

}  // namespace
}  // namespace norvel::node
