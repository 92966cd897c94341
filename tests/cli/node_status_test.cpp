#include "cli/node_status.h"

#include <gtest/gtest.h>

namespace norvel::cli {
namespace {

constexpr int64_t kNow = 1'700'000'600;

rpc::JsonValue sample() {
  return rpc::JsonValue::parse(
      R"({"height":41,"tip":"00ab","tip_time":1700000590,"best_known_height":50,"peers_in":1,"peers_out":2,)"
      R"("mempool_bytes":700,"treasury_balance":123456789,"difficulty":1.5,"warnings":[],"uptime":60})");
}

TEST(NodeStatus, StandsOnOneScreen) {
  EXPECT_EQ(status_text(sample(), kNow),
            "Height:       41 of 50 known\n"
            "Tip:          00ab\n"
            "Tip age:      10 s\n"
            "Difficulty:   1.5000\n"
            "Peers:        1 in, 2 out\n"
            "Mempool:      ? transactions, 700 bytes\n"
            "Treasury:     1.23456789 NVL\n"
            "Uptime:       60 s\n"
            "Warnings:     none\n");
}

TEST(NodeStatus, ComplaintsAreOldTipsAndWarnings) {
  const struct {
    const char* label;
    double tip_time;
    size_t want;
  } rows[] = {
      {"fresh", kNow - 599, 0},
      {"ten minutes", kNow - 600, 1},
      {"of the future", kNow + 7'000, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    rpc::JsonValue status = sample();
    status.set("tip_time", row.tip_time);
    EXPECT_EQ(find_complaints(status, kNow).size(), row.want);
  }
  rpc::JsonValue status = sample();
  status.set("warnings", rpc::JsonValue::parse(R"(["disk\nfull","clock"])"));
  EXPECT_EQ(find_complaints(status, kNow), (std::vector<std::string>{"Warning: disk?full", "Warning: clock"}));
  EXPECT_EQ(find_complaints(rpc::JsonValue(), kNow).size(), 1u);
}

}  // namespace
}  // namespace norvel::cli
